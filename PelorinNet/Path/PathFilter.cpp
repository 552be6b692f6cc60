#include "PelorinNet/Path/PathFilter.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::uint16_t firstUserPort = 1024; // below it no relay allocates, and services listen

// A single machine elsewhere, as far as the address tells (RFC 6890).
bool isUnicast(const SocketAddress& address)
{
    if (!address.isIPv4() || address.port == 0) return false;
    const ByteView host = address.host();
    const bool isLinkLocal = host[0] == 169 && host[1] == 254;
    return host[0] != 0 && host[0] != 127 && !isLinkLocal && host[0] < 224;
}

bool isPrivate(const SocketAddress& address) // RFC 1918, RFC 6598
{
    const ByteView host = address.host();
    return host[0] == 10 || (host[0] == 172 && (host[1] & 0xF0) == 16) || (host[0] == 192 && host[1] == 168)
        || (host[0] == 100 && (host[1] & 0xC0) == 64);
}

bool isSameHost(const SocketAddress& one, const SocketAddress& other)
{
    return std::ranges::equal(one.host(), other.host());
}

} // namespace

void PathFilter::avoid(const SocketAddress& server)
{
    if (std::ranges::find(servers, server) == servers.end()) servers.push_back(server);
}

bool PathFilter::mayCheck(const SocketAddress& peer) const
{
    return isUnicast(peer) && std::ranges::none_of(servers, [&](const SocketAddress& server) {
        return isSameHost(server, peer);
    });
}

bool PathFilter::mayCheckRelay(const SocketAddress& peer) const
{
    return isUnicast(peer) && std::ranges::none_of(servers, [&](const SocketAddress& server) {
        return server == peer || (isSameHost(server, peer) && peer.port < firstUserPort);
    });
}

bool PathFilter::mayRelayTo(const SocketAddress& peer, const SocketAddress& relay) const
{
    return mayCheckRelay(peer) && (!isPrivate(peer) || isPrivate(relay));
}

} // namespace pelorin
