// The digest's own functions keep their state in a plain value. The library calls them deprecated, but its
// newer ones cost five times as much for a key that is used once, and as much with a context kept per key.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "PelorinNet/Stun/HmacSHA1.h"

#include <algorithm>
#include <openssl/sha.h>

namespace pelorin {
namespace {

using Digest = std::array<std::uint8_t, SHA_DIGEST_LENGTH>;
using Pad = std::array<std::uint8_t, SHA_CBLOCK>; // a key, filled up to one block

constexpr std::uint8_t innerMask = 0x36;
constexpr std::uint8_t outerMask = 0x5C;

Pad padOf(ByteView key)
{
    Pad pad{};
    if (key.size() > pad.size())
        ::SHA1(key.data(), key.size(), pad.data());
    else
        std::ranges::copy(key, pad.begin());
    return pad;
}

Digest masked(Pad pad, std::uint8_t mask, std::initializer_list<ByteView> parts)
{
    for (auto& byte : pad) byte ^= mask;
    SHA_CTX state;
    ::SHA1_Init(&state);
    ::SHA1_Update(&state, pad.data(), pad.size());
    for (const ByteView part : parts) ::SHA1_Update(&state, part.data(), part.size());
    Digest digest;
    ::SHA1_Final(digest.data(), &state);
    return digest;
}

} // namespace

std::array<std::uint8_t, 20> hmacSHA1(ByteView key, std::initializer_list<ByteView> parts)
{
    const Pad pad = padOf(key);
    const Digest inner = masked(pad, innerMask, parts);
    return masked(pad, outerMask, {inner});
}

} // namespace pelorin
