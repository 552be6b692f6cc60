#include "PelorinRendezvous/Admission.h"

#include "PelorinCore/Result.h"

namespace pelorin {
namespace {

constexpr int ipv6NetworkBits = 64;

} // namespace

Admission::Admission(const Limits& newLimits)
    : connectionsPerSource(newLimits.connectionsPerSource),
      connects(Rate::perMinute(newLimits.connectsPerMinute())),
      requests(Rate::perMinute(newLimits.requestsPerMinute)),
      registrations(Rate::perMinute(newLimits.registrationsPerMinute)),
      hostRequests(Rate::perMinute(newLimits.requestsPerMinute)),
      hostRegistrations(Rate::perMinute(newLimits.requestsPerMinute))
{
}

IPAddress Admission::sourceOf(const IPAddress& address)
{
    return address.isIPv4() ? address : address.masked(ipv6NetworkBits);
}

bool Admission::mayConnect(const IPAddress& source, SteadyTime now)
{
    return connects.take(source, now);
}

bool Admission::open(const IPAddress& source)
{
    int& count = connections[source];
    if (count >= connectionsPerSource) return false;
    ++count;
    return true;
}

void Admission::close(const IPAddress& source)
{
    const auto found = connections.find(source);
    require(found != connections.end(), "a connection is closed after it was opened");
    if (--found->second == 0) connections.erase(found);
}

bool Admission::mayRequest(const IPAddress& source, SteadyTime now)
{
    return requests.take(source, now);
}

bool Admission::mayRegister(const IPAddress& source, SteadyTime now)
{
    return registrations.take(source, now);
}

bool Admission::mayReach(const std::string& hostID, SteadyTime now)
{
    return hostRequests.take(hostID, now);
}

bool Admission::mayRegisterAs(const std::string& hostID, SteadyTime now)
{
    return hostRegistrations.take(hostID, now);
}

void Admission::forgetIdle(SteadyTime now)
{
    connects.forgetPaid(now);
    requests.forgetPaid(now);
    registrations.forgetPaid(now);
    hostRequests.forgetPaid(now);
    hostRegistrations.forgetPaid(now);
}

} // namespace pelorin
