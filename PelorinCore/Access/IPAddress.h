#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// An IP address as its numbers, so that one address has one spelling when rules compare it. An IPv4 address
// that was written as IPv6 (::ffff:1.2.3.4) is IPv4.
class IPAddress {
public:
    // Strict, as inet_pton: four decimal numbers without leading zeros, or RFC 4291's text. No zone, port,
    // brackets, spaces or bytes behind the end.
    static std::optional<IPAddress> parse(std::string_view text);
    static std::optional<IPAddress> parseIPv4(std::string_view text);
    static IPAddress fromIPv6(const std::array<std::uint8_t, 16>& bytes);

    bool isIPv4() const;
    // Whether the first bits of the address are those of prefix; an IPv4 address is in no IPv6 prefix.
    bool isWithin(const IPAddress& prefix, int bits) const;
    IPAddress masked(int bits) const; // the rest zero

    std::string text() const; // "100.64.0.1", or RFC 5952's lower-case shortest form
    const std::array<std::uint8_t, 16>& bytes() const { return mapped; } // IPv4 in its IPv6 mapping

    auto operator<=>(const IPAddress&) const = default;

private:
    explicit IPAddress(const std::array<std::uint8_t, 16>& bytes) : mapped(bytes) {}

    std::array<std::uint8_t, 16> mapped{};
};

} // namespace pelorin
