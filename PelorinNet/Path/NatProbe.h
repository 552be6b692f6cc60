#pragma once

#include "PelorinNet/Path/PathServers.h"
#include "PelorinNet/Path/StunBinder.h"

#include <span>

namespace pelorin {

// Finds out what the network between us and the servers does to a socket's address: from one socket it asks
// several how they see it (RFC 5780, section 4.3). Path queue; owned by who wants to know.
class NatProbe {
public:
    enum class Kind {
        none, // we are seen under an address of our own
        oneForAll, // every server sees the same one: whoever is told it can be met there
        oneForEach, // another one for each server, so that nobody can be told where to meet us
        some, // only one server answered: there is a NAT, of either kind
        silent, // no server answered, or there was none to ask
    };
    struct Answer {
        Kind kind = Kind::silent;
        std::optional<SocketAddress> seen; // by the first that answered
        std::size_t silent = 0; // servers that were asked in vain, or whose names nobody knew
    };
    using Done = std::function<void(const Answer&)>;

    static constexpr std::size_t maxServers = 4;

    NatProbe(QueueRef queue, PathServers::Lookup lookup);

    // Once. own: addresses of this machine, as literals. Done within 8 s, and may destroy us.
    void ask(const std::vector<PathServers::Server>& servers, std::vector<std::string> own, Done done);

private:
    void lookedUp(const std::vector<SocketAddress>& addresses);
    void answered(std::size_t which, const Result<SocketAddress, NetError>& result);
    void finishWhenComplete();
    Kind judge() const;

    const QueueRef queue;
    const PathServers::Lookup lookup;
    std::vector<std::string> ownAddresses;
    Done onDone;
    std::unique_ptr<UDPSocket> socket;
    std::vector<SocketAddress> asked;
    std::vector<std::optional<SocketAddress>> seen; // as asked
    std::size_t unknownNames = 0;
    std::size_t lookupsLeft = 0;
    std::size_t answersLeft = 0;
    std::unique_ptr<StunBinder> binder; // after the socket, which it sends through
    Lifetime lifetime;
};

} // namespace pelorin
