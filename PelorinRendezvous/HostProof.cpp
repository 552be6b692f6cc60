#include "PelorinRendezvous/HostProof.h"

#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/VerifyingKey.h"

#include <fmt/format.h>

namespace pelorin {
namespace {

constexpr std::size_t signatureSize = 64; // asked before the key is looked at, which costs more

} // namespace

std::optional<std::string> provenHostID(const PeerMessage::Register& message, std::string_view nonce)
{
    if (message.signature.size() != signatureSize) return std::nullopt;
    const auto key = VerifyingKey::fromX963(message.publicKey);
    if (!key) return std::nullopt;
    std::string hostID = KeyFingerprint::hostID(message.publicKey);
    const std::string text = fmt::format("pelorin-host-v1|{}|{}", hostID, nonce);
    const ByteView bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    if (!key->hasSignedRaw(bytes, message.signature)) return std::nullopt;
    return hostID;
}

} // namespace pelorin
