#include "PelorinNet/Stun/SocketAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fmt/format.h>

namespace pelorin {

SocketAddress SocketAddress::ipv4(std::array<std::uint8_t, 4> host, std::uint16_t port)
{
    SocketAddress address;
    std::ranges::copy(host, address.bytes.begin());
    address.port = port;
    return address;
}

SocketAddress SocketAddress::ipv6(const std::array<std::uint8_t, 16>& host, std::uint16_t port)
{
    SocketAddress address;
    address.bytes = host;
    address.length = 16;
    address.port = port;
    return address;
}

std::optional<SocketAddress> SocketAddress::parse(std::string_view ip, std::uint16_t port)
{
    const std::string text(ip);
    if (text.find('\0') != text.npos) return std::nullopt; // the system would read up to it
    std::array<std::uint8_t, 4> quad{};
    if (::inet_pton(AF_INET, text.c_str(), quad.data()) == 1) return ipv4(quad, port);
    std::array<std::uint8_t, 16> groups{};
    if (::inet_pton(AF_INET6, text.c_str(), groups.data()) == 1) return ipv6(groups, port);
    return std::nullopt;
}

std::string SocketAddress::hostText() const
{
    if (isIPv4()) return fmt::format("{}.{}.{}.{}", bytes[0], bytes[1], bytes[2], bytes[3]);
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        text += fmt::format("{}{:x}", i == 0 ? "" : ":", bytes[i] << 8 | bytes[i + 1]);
    return text;
}

std::string SocketAddress::text() const
{
    return isIPv4() ? fmt::format("{}:{}", hostText(), port) : fmt::format("[{}]:{}", hostText(), port);
}

} // namespace pelorin

// Asked for every datagram that arrives, so two words are mixed rather than bytes fed one by one.
std::size_t std::hash<pelorin::SocketAddress>::operator()(
    const pelorin::SocketAddress& address) const noexcept
{
    constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15; // odd, its bits well spread
    std::uint64_t words[2] = {};
    const auto host = address.host();
    std::memcpy(words, host.data(), host.size());
    const auto mix = [](std::uint64_t value) { return (value ^ value >> 29) * multiplier; };
    return mix(mix(mix(words[0] + host.size()) + words[1]) + address.port);
}
