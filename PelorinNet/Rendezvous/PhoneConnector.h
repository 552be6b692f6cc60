#pragma once

#include "PelorinNet/Channel/PathChannel.h"
#include "PelorinNet/Channel/PelorinQUIC.h"
#include "PelorinNet/Rendezvous/ConnectRequest.h"
#include "PelorinNet/Rendezvous/CredentialRenewal.h"
#include "PelorinNet/Rendezvous/RendezvousSocket.h"

#include <atomic>

namespace pelorin {

// Where a host is reached through a rendezvous service.
struct RemotePlace {
    std::string hostID; // the host's name there
    Bytes fingerprint; // of the host's key, 32 bytes: whom to trust, whatever the service says
    std::string service; // its URL
    bool operator==(const RemotePlace&) const = default;
};

// The phone's side of one remote session: asks the host for it by way of the service, finds a path, and opens
// a stream to the host that proves the expected key. Keeps the path while it lives. Queue: the one given, for
// the socket, the path and QUIC alike, so that no step waits for another thread. Owns them all. Owned by the
// session at its end; destroying it ends the session, and what was sent last still goes out.
class PhoneConnector {
public:
    using MakePath = std::function<std::unique_ptr<PathSetup>(QueueRef, PathServers)>;
    struct Means {
        QueueMaker& queues;
        const DeviceIdentity& identity; // outlives the connector
        RendezvousSocketMaker makeSocket;
        MakePath makePath = PathSetup::onThisMachine;
    };
    // To become a paired phone on the way.
    struct Pairing {
        SecretBytes code;
        std::string deviceName;
    };
    struct Failure {
        enum class Kind {
            serviceUnreachable,
            hostOffline, // it is not registered with the service
            refused, // by the host, in its own words
            noPath,
            wrongHost, // somebody else answers on the path
            lost, // what was begun came to no end
        };
        Kind kind = Kind::lost;
        std::string text; // for people
    };
    struct Reached {
        std::unique_ptr<Channel> channel; // not started; described by the path's label
        std::string hostName; // as the host calls itself; of a pairing only
    };
    // How long after start each step was done.
    struct Steps {
        std::optional<Duration> service; // the service has said whether the host is there
        std::optional<Duration> accepted; // by the host
        std::optional<Duration> path;
        std::optional<Duration> secured; // the host has proved its key over QUIC
    };

    PhoneConnector(
        QueueRef newQueue, Means newMeans, RemotePlace newPlace, std::optional<Pairing> newPairing);
    ~PhoneConnector();
    PhoneConnector(const PhoneConnector&) = delete;
    PhoneConnector& operator=(const PhoneConnector&) = delete;

    // On the queue; both may destroy the connector.
    std::function<void(Result<Reached, Failure>)> onDone; // once
    std::function<void(const std::string& label)> onPathChange; // after it

    void start();
    void networkChanged(); // the machine's interfaces or routes

    const Steps& steps() const { return done; }

private:
    // Whether the host has shown another key than expected; set on the queue that verifies it.
    struct Verdict {
        std::atomic<bool> isStranger = false;
    };

    void opened(const Result<void, NetError>& result);
    void await(std::optional<Duration> timeout, void (PhoneConnector::*step)(const nlohmann::json&));
    void greeted(const nlohmann::json& message);
    void ask();
    std::optional<ConnectRequest> makeRequest();
    void answered(const nlohmann::json& message);
    void accepted(const nlohmann::json& response);
    void signalled(const nlohmann::json& message);
    void pathReady(const Result<std::string, NetError>& result);
    void renewCredentials();
    void connect();
    void pathChanged(const std::string& newLabel);
    void secured();
    void ended(const std::optional<NetError>& error);
    void serviceLost(const NetError& error);
    void fail(Failure::Kind kind, std::string text);
    void finish(Result<Reached, Failure> result);
    Duration sinceStart() const { return queue->now() - startedAt; }

    const QueueRef queue;
    const Means means;
    const RemotePlace place;
    const std::optional<Pairing> pairing;
    SteadyTime startedAt;
    Steps done;
    std::unique_ptr<RendezvousSocket> socket;
    Subscription keepAlive; // of the socket, by which both ends tell of new addresses while the session lives
    std::unique_ptr<PathSetup> setup;
    std::optional<TurnCredentials> turn;
    std::unique_ptr<CredentialRenewal> renewal; // of turn, while there is a path
    std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
    std::shared_ptr<PathLabel> label = std::make_shared<PathLabel>("");
    std::shared_ptr<Verdict> verdict = std::make_shared<Verdict>();
    std::unique_ptr<PelorinQUIC::Connection> connection;
    std::unique_ptr<Channel> stream; // until handed over
    std::string hostName;
    Log log{"connect"};
    Lifetime lifetime;
};

} // namespace pelorin
