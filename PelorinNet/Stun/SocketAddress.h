#pragma once

#include "PelorinCore/Result.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// An IP address and a port, IPv4 or IPv6. Equal when family, bytes and port are.
class SocketAddress {
public:
    SocketAddress() = default; // 0.0.0.0:0
    static SocketAddress ipv4(std::array<std::uint8_t, 4> host, std::uint16_t port);
    static SocketAddress ipv6(const std::array<std::uint8_t, 16>& host, std::uint16_t port);
    // An address literal, dotted quad or IPv6; nothing for anything else. Names are not looked up.
    static std::optional<SocketAddress> parse(std::string_view ip, std::uint16_t port);

    ByteView host() const { return {bytes.data(), length}; } // 4 or 16 bytes, in network order
    bool isIPv4() const { return length == 4; }
    std::uint16_t port = 0;

    std::string hostText() const; // without port and brackets; parse takes it
    // 192.0.2.7:3478 or [fe80:0:0:0:1:2:3:4]:5000. Runs of zeros are not shortened: signatures cover this
    // form.
    std::string text() const;

    bool operator==(const SocketAddress&) const = default;

private:
    std::array<std::uint8_t, 16> bytes{}; // unused ones are zero
    std::uint8_t length = 4;
};

} // namespace pelorin

template <>
struct std::hash<pelorin::SocketAddress> {
    std::size_t operator()(const pelorin::SocketAddress& address) const noexcept;
};
