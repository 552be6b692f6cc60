#include "PelorinNet/Channel/PelorinTLS.h"

#include <fmt/format.h>
#include <openssl/rand.h>

namespace pelorin {
namespace {

constexpr std::size_t identityBytes = 8;
constexpr std::size_t secretBytes = 32;

} // namespace

Bytes PelorinTLS::randomBytes(std::size_t count)
{
    Bytes bytes(count);
    require(
        RAND_priv_bytes(bytes.data(), static_cast<int>(count)) == 1, "the system's secure generator failed");
    return bytes;
}

std::string PelorinTLS::randomIdentity(std::string_view prefix)
{
    std::string identity(prefix);
    for (const std::uint8_t byte : randomBytes(identityBytes)) identity += fmt::format("{:02x}", byte);
    return identity;
}

PelorinTLS::Key PelorinTLS::randomKey(std::string identity)
{
    return {std::move(identity), SecretBytes(randomBytes(secretBytes))};
}

} // namespace pelorin
