#include "PelorinNet/Identity/HmacSHA256.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace pelorin {

Bytes hmacSHA256(ByteView key, ByteView data)
{
    constexpr std::uint8_t none = 0; // an absent key would mean: the key of the last call
    const void* keyBytes = key.empty() ? &none : key.data();
    Bytes code(32);
    const auto* made = HMAC(
        EVP_sha256(), keyBytes, static_cast<int>(key.size()), data.data(), data.size(), code.data(), nullptr);
    require(made != nullptr, "HMAC-SHA-256");
    return code;
}

} // namespace pelorin
