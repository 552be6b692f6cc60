#pragma once

#include "PelorinNet/Channel/PathChannel.h"
#include "PelorinNet/Queue/Confined.h"
#include "PelorinNet/Rendezvous/CredentialRenewal.h"
#include "PelorinNet/Rendezvous/HostAgent.h"

#include <mutex>
#include <set>

namespace pelorin {

// Whom the QUIC listener lets in: phones for which a path is being made. Any thread; the agent changes it,
// the listener's verification asks.
class HostAgent::ExpectedPhones : public std::enable_shared_from_this<ExpectedPhones> {
public:
    // Expected until the result goes.
    std::shared_ptr<void> expect(Bytes fingerprint)
    {
        const std::lock_guard guard(lock);
        const auto place = fingerprints.insert(std::move(fingerprint));
        return {nullptr, [self = shared_from_this(), place](void*) {
                    const std::lock_guard erasing(self->lock);
                    self->fingerprints.erase(place);
                }};
    }
    bool contains(const Bytes& fingerprint) const
    {
        const std::lock_guard guard(lock);
        return fingerprints.contains(fingerprint);
    }

private:
    mutable std::mutex lock; // guards fingerprints
    std::multiset<Bytes> fingerprints;
};

// One phone's way in, from its request to the end of its last stream: the path, and the QUIC connections over
// it. Queue: the agent's; the path lives on one of its own. Owned by the agent.
class HostAgent::Session {
public:
    struct Origin {
        std::string id; // the service's
        int link = 0; // number of the registration that it came by
        std::uint64_t order = 0; // the older, the smaller
        Phone phone;
        std::shared_ptr<void> expectation; // of the phone on the listener
    };
    Session(Origin newOrigin, QueueRef agentQueue, QueueRef newPathQueue,
        std::move_only_function<std::unique_ptr<PathSetup>()> makePath);
    ~Session(); // what was said last still goes out over the path

    // All on the queue; they may destroy the session.
    std::function<void(nlohmann::json data)> onSignal; // for the phone
    std::function<void(std::unique_ptr<Channel>)> onStream;
    // error: what the phone is to be told, if anything.
    std::function<void(std::optional<std::string> error)> onEnd; // at most once

    // Opens the sockets; done gets what the phone must know, or why there are none.
    void open(std::uint16_t listenerPort, const std::function<void(Result<PathDescription, NetError>)>& done);
    void start(PathDescription remote, std::optional<TurnCredentials> turn);
    void renewCredentials(RendezvousSocketMaker makeSocket, std::string url); // as CredentialRenewal does
    void deliver(nlohmann::json data); // the phone's word
    void adopt(std::unique_ptr<PelorinQUIC::Connection> connection);
    void networkChanged();

    const std::string& id() const { return origin.id; }
    int link() const { return origin.link; }
    std::uint64_t order() const { return origin.order; }
    const Phone& phone() const { return origin.phone; }
    std::uint16_t localPort() const { return port; } // 0 until open
    bool hasStream() const { return streamArrived; }
    bool isEstablished() const { return path || streamArrived; } // and needs the service no longer

private:
    void pathReady(const Result<std::string, NetError>& label);
    void pathChanged(const std::string& label);
    void streamCame(std::unique_ptr<Channel> channel);
    void handOver(std::unique_ptr<Channel> channel);
    void closed(const PelorinQUIC::Connection* connection);
    void endWith(std::optional<std::string> error);
    // Brings work from the path's queue to ours.
    template <class Work>
    auto here(const Work& work);

    const Origin origin;
    const QueueRef queue;
    const QueueRef pathQueue;
    Confined<PathSetup> setup;
    std::uint16_t port = 0;
    const std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
    const std::shared_ptr<PathLabel> label = std::make_shared<PathLabel>("");
    std::optional<std::string> path; // label of the current one
    std::vector<std::unique_ptr<PelorinQUIC::Connection>> connections;
    std::vector<std::unique_ptr<Channel>> waitingStreams; // came before our end knew of the path
    bool streamArrived = false;
    std::unique_ptr<CredentialRenewal> renewal;
    Subscription patience; // for a first stream
    Log log{"rendezvous"};
    Lifetime lifetime;
};

} // namespace pelorin
