#pragma once

#include "PelorinNet/Stun/SocketAddress.h"

#include <vector>

namespace pelorin {

// Which addresses of the peer's we are willing to send to. The peer names them, so that without a rule it
// could have us send to machines that only we can reach. A value.
class PathFilter {
public:
    // A server of ours, or an address that it relays for us: nothing there is ever a peer.
    void avoid(const SocketAddress& server);

    // Straight from our socket: IPv4 unicast, not our own machine, not link-local, not at a relay of ours.
    bool mayCheck(const SocketAddress& peer) const;
    // Straight from our socket, to an address that a relay gave the peer: it may be on a machine that serves
    // us as well, but there neither where that listens nor at a port of the system's services.
    bool mayCheckRelay(const SocketAddress& peer) const;
    // Through a relay: the same, and a private network only when the relay itself is in one.
    bool mayRelayTo(const SocketAddress& peer, const SocketAddress& relay) const;

private:
    std::vector<SocketAddress> servers;
};

} // namespace pelorin
