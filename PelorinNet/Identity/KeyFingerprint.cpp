#include "PelorinNet/Identity/KeyFingerprint.h"

#include "PelorinNet/Identity/Base32.h"

#include <openssl/sha.h>

namespace pelorin {
namespace {

constexpr std::size_t hostIDBytes = 16;

} // namespace

Bytes KeyFingerprint::of(ByteView publicKey)
{
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(publicKey.data(), publicKey.size(), digest.data());
    return digest;
}

std::string KeyFingerprint::hostID(ByteView publicKey)
{
    return Base32::encode(ByteView(of(publicKey)).first(hostIDBytes));
}

} // namespace pelorin
