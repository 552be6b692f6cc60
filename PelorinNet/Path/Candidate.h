#pragma once

#include "PelorinNet/Stun/SocketAddress.h"

#include <nlohmann/json_fwd.hpp>
#include <vector>

struct ifaddrs;

namespace pelorin {

// An address at which one end of a session may be reached.
struct Candidate {
    SocketAddress address;
    // "host" (an interface), "srflx" (as a STUN server saw it), "relay" and "relay2" (allocated on a relay),
    // "prflx" (as the peer saw it). Others come from newer peers.
    std::string type;

    std::string signedText() const; // "srflx 203.0.113.7:51820", as connect requests are signed
    nlohmann::json json() const; // {"ip", "port", "type"}
    // A port outside 0...65535 is clamped; anything else out of order yields nothing.
    static std::optional<Candidate> parse(const nlohmann::json& json);
    bool operator==(const Candidate&) const = default;
};

// The IPv4 addresses of this machine's interfaces that a peer may try, in the system's order. Left out:
// interfaces that are down, loopback or a tunnel, link-local addresses and 100.64.0.0/10.
std::vector<Candidate> hostCandidates(std::uint16_t port);
std::vector<Candidate> hostCandidates(const ifaddrs* interfaces, std::uint16_t port); // of such a list

} // namespace pelorin
