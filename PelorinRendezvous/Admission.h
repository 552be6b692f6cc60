#pragma once

#include "PelorinCore/Access/IPAddress.h"
#include "PelorinRendezvous/Limits.h"

#include <string>

namespace pelorin {

// Who is answered at all: counts connections and requests by where they come from, so that nobody takes what
// belongs to all. A source is an IPv4 address, or the /64 network of an IPv6 address, since who has one of
// its addresses has them all.
class Admission {
public:
    explicit Admission(const Limits& newLimits);

    static IPAddress sourceOf(const IPAddress& address);

    bool mayConnect(const IPAddress& source, SteadyTime now); // before anything is spent on the connection
    bool open(const IPAddress& source); // false, and not counted, when the source has its fill
    void close(const IPAddress& source); // of each that was opened
    bool mayRequest(const IPAddress& source, SteadyTime now);
    bool mayRegister(const IPAddress& source, SteadyTime now);
    bool mayReach(const std::string& hostID, SteadyTime now); // a phone asks for that host
    bool mayRegisterAs(const std::string& hostID, SteadyTime now);

    void forgetIdle(SteadyTime now);
    std::size_t sourceCount() const { return connections.size(); }

private:
    const int connectionsPerSource;
    std::map<IPAddress, int> connections; // open ones
    RateLimiter<IPAddress> connects;
    RateLimiter<IPAddress> requests;
    RateLimiter<IPAddress> registrations;
    RateLimiter<std::string> hostRequests;
    RateLimiter<std::string> hostRegistrations;
};

} // namespace pelorin
