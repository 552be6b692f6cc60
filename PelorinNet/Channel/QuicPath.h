#pragma once

#include "PelorinNet/Stun/SocketAddress.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <ngtcp2/ngtcp2.h>

namespace pelorin {

// An address as the library gets it: of IPv6, with the number of the path before the real address. So a new
// path shows where the address does not, and the way back to the real address is plain.
struct QuicPathAddress {
    QuicPathAddress(const SocketAddress& real, std::uint64_t pathEpoch)
    {
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(real.port);
        std::memcpy(address.sin6_addr.s6_addr, &pathEpoch, sizeof pathEpoch);
        const ByteView host = real.host();
        require(host.size() == 4, "QUIC runs over IPv4");
        std::ranges::copy(host, address.sin6_addr.s6_addr + 12);
    }
    static SocketAddress realOf(const ngtcp2_addr& given)
    {
        sockaddr_in6 made{};
        std::memcpy(&made, given.addr, std::min<std::size_t>(given.addrlen, sizeof made));
        const std::uint8_t* const host = made.sin6_addr.s6_addr + 12;
        return SocketAddress::ipv4({host[0], host[1], host[2], host[3]}, ntohs(made.sin6_port));
    }
    ngtcp2_addr view() { return {reinterpret_cast<sockaddr*>(&address), sizeof address}; }

    sockaddr_in6 address{};
};

struct QuicPath {
    QuicPath(const SocketAddress& localAddress, const SocketAddress& remoteAddress, std::uint64_t pathEpoch)
        : local(localAddress, pathEpoch),
          remote(remoteAddress, pathEpoch)
    {
    }
    ngtcp2_path view() { return {local.view(), remote.view(), nullptr}; }

    QuicPathAddress local, remote;
};

} // namespace pelorin
