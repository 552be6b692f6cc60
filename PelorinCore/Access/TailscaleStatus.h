#pragma once

#include "PelorinCore/Access/IPAddress.h"
#include "PelorinCore/Access/TailscaleWhois.h"

#include <vector>

namespace pelorin {

// What we read of the Tailscale tool's status: the machine's own name, and where each peer is reached just
// now.
struct TailscaleStatus {
    struct Peer {
        std::vector<IPAddress> tailscaleIPs;
        std::optional<std::string> curAddr; // "203.0.113.7:41641"; nothing while a relay carries it
    };

    std::optional<std::string> dnsName; // of this machine, without the trailing dot
    std::vector<Peer> peers;

    static Result<TailscaleStatus, TailscaleJSONError> parse(std::string_view json);
    static constexpr std::size_t maxSize = 8 << 20; // about a kilobyte a peer

    // Of the peer that has this address among its tailnet addresses.
    std::optional<std::string> curAddrOf(const IPAddress& tailnetAddress) const;
};

} // namespace pelorin
