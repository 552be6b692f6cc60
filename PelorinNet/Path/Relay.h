#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/Path/Candidate.h"
#include "PelorinNet/Path/DatagramProxy.h"
#include "PelorinNet/Path/PathServers.h"
#include "PelorinNet/Path/TurnClient.h"

namespace pelorin {

// One relay server as a session uses it: an allocation there, renewed while the session lives and made anew
// when it is lost, and a channel to each address of the peer's. Path queue; owned by PathSetup.
class Relay {
public:
    // candidateType: "relay" or "relay2", what the peer is told that the allocation is.
    Relay(DatagramProxy& newProxy, QueueRef newQueue, PathServers::Lookup newLookup,
        PathServers::Server newServer, TurnCredentials newCredentials, std::string newCandidateType);
    ~Relay();

    std::function<void(const Candidate&)> onAllocated;
    std::function<void(const std::vector<SocketAddress>& addresses)>
        onServerKnown; // of the server, before that
    std::function<void(TurnClient&, std::uint16_t channel, const SocketAddress& peer)> onChannel;
    // Whether the way through one of its channels is in use; one that isn't may be given up for another.
    std::function<bool(const DatagramProxy::Path&)> isNeeded;
    std::function<void(TurnClient&)> onUnreachable; // the network says so; the allocation may live on
    std::function<void(TurnClient&)> onLost; // the client goes right after; another allocation follows
    std::function<void()> onFailed; // an attempt to allocate has failed; others follow

    void start();
    // Opens a channel there, now or once there is an allocation. Of more than 16 the oldest that is not
    // needed is renewed no more.
    void reach(const SocketAddress& peer);
    void setCredentials(TurnCredentials fresh); // of the next allocation; one that stands keeps its own
    void distrust(); // its paths are dead: is the allocation?

    const std::string& name() const { return server.host; }
    const TurnClient* client() const { return turn.get(); } // none between allocations

private:
    void look();
    void allocate(std::vector<SocketAddress> addresses);
    void allocated(const SocketAddress& relayed);
    struct Peer {
        SocketAddress address;
        std::uint16_t channel = 0;
    };
    void bind(const Peer& peer);
    bool forgetOldest();
    void renewLater();
    void renew();
    void refresh();
    void lose(const std::string& why);
    void failed(const std::string& why);

    DatagramProxy& proxy;
    const QueueRef queue;
    const PathServers::Lookup lookup;
    const PathServers::Server server;
    TurnCredentials credentials; // the latest
    const std::string candidateType;

    // Of the peer, in the order they became known. A channel's number is never used again, for the relay
    // holds it for the address that it was bound to.
    std::vector<Peer> peers;
    std::uint16_t nextChannel = ChannelData::channelRange.first;
    Subscription timer; // the next renewal, or the next attempt
    Subscription rebinding; // of channels that could not be bound or renewed
    int rebindings = 0; // since the last renewal
    bool isRefreshing = false;
    int failures = 0; // in a row
    std::unique_ptr<TurnClient> turn;
    Log log{"path"};
    Lifetime lifetime;
};

} // namespace pelorin
