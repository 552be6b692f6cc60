#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"

#include <string>
#include <string_view>

namespace pelorin::PelorinTLS {

// One pre-shared key of the TLS channel (RFC 4279). The identity travels in clear: "pair-" or "dev-" and 16
// lowercase hexadecimal digits. The secret has 32 random bytes in every key that we make.
struct Key {
    std::string identity;
    SecretBytes secret;
    bool operator==(const Key&) const = default;
};

inline constexpr std::string_view pairingPrefix = "pair-"; // the one-time key of a pairing link
inline constexpr std::string_view devicePrefix = "dev-"; // the long-lived key of a paired phone

// prefix and 16 lowercase hexadecimal digits.
constexpr bool isIdentity(std::string_view text, std::string_view prefix)
{
    constexpr std::size_t digits = 16;
    return text.starts_with(prefix) && text.size() == prefix.size() + digits
        && text.find_first_not_of("0123456789abcdef", prefix.size()) == std::string_view::npos;
}

} // namespace pelorin::PelorinTLS
