#pragma once

#include "PelorinNet/Channel/PelorinQUIC.h"
#include "PelorinNet/Rendezvous/ConnectRequest.h"
#include "PelorinNet/Rendezvous/HostRegistration.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <map>

namespace pelorin {

// Makes this host reachable from everywhere: stays registered with the rendezvous service, judges the phones
// that ask for a session there, finds a path for each that is admitted, and hands over the QUIC streams that
// arrive on it. Neither service nor network has to be trusted: a phone is known by its signature, and again
// by its key on the path. Queue: "dev.pelorin.host-agent". Owns the registration, the QUIC listener and the
// sessions, whose paths live on queues of their own. Owned by the host's server.
class HostAgent {
public:
    struct Phone {
        std::string id; // "dev-…"
        std::string name; // for people
        Bytes publicKey; // X9.63, 65 bytes
    };
    // What a phone shows to become a paired one.
    struct PairingAttempt {
        Bytes publicKey;
        std::string deviceName;
        Bytes proof; // over context
        std::string context;
    };
    using MakePath = std::function<std::unique_ptr<PathSetup>(QueueRef pathQueue, PathServers)>;
    struct Means {
        QueueMaker& queues;
        const DeviceIdentity& identity;
        RendezvousSocketMaker makeSocket;
        MakePath makePath = PathSetup::onThisMachine;
    };

    HostAgent(QueueRef agentQueue, HostRegistration::Settings settings, Means newMeans);
    ~HostAgent(); // as stop

    // Set before start. phone may be called on any thread, the others are called on the queue.
    std::function<std::optional<Phone>(const Bytes& keyHash)> phone; // a paired one
    std::function<std::optional<Phone>(const PairingAttempt&)> pair; // nothing: refused
    std::function<void(bool isRegistered)> onRegistered;
    std::function<void(const std::string& reason)> onRefused; // a request; the phone was told why
    // One stream, not started, of a phone that has proved itself; its channel describes the path.
    std::function<void(std::unique_ptr<Channel>, const Phone&)> onStream;

    void start();
    void stop(); // ends every session; may be started again
    void networkChanged(); // the machine's interfaces or routes

    const std::string hostID; // this host's name at the service

    // Beyond it, who has been waiting longest for a path makes room.
    static constexpr std::size_t maxSessions = 16;
    std::size_t sessionCount() const { return sessions.size(); }

private:
    class Session;
    class ExpectedPhones;

    void handle(const nlohmann::json& message);
    void requested(const std::string& id, const nlohmann::json& message);
    Result<Phone, std::string> admitted(const ConnectRequest& request);
    Result<Phone, std::string> known(const ConnectRequest& request);
    Result<Phone, std::string> paired(const ConnectRequest& request);
    bool isGenuine(const ConnectRequest& request, const Bytes& publicKey);
    void granted(const ConnectRequest& request);
    bool makeRoom();
    void open(const std::string& id, const ConnectRequest& request, const Phone& from,
        ServiceMessage::Servers servers);
    void opened(const std::string& id, const ConnectRequest& request,
        const std::optional<TurnCredentials>& turn, const Result<PathDescription, NetError>& local);
    void refuse(const std::string& id, const std::string& reason);
    void left(const std::string& id);
    void end(const std::string& id, const std::optional<std::string>& error = {});
    void tell(const Session& session, const nlohmann::json& message);
    void linkEnded();

    bool listen();
    void adopt(std::unique_ptr<PelorinQUIC::Connection> connection);

    const QueueRef queue;
    const std::string name;
    const Means means;
    const std::shared_ptr<ExpectedPhones> expected; // those with a session
    std::shared_ptr<const PelorinQUIC::Parameters> parameters;
    std::unique_ptr<PelorinQUIC::Listener> listener;
    HostRegistration registration;
    std::map<std::string, std::unique_ptr<Session>> sessions; // by the service's id
    std::map<std::uint16_t, Session*> byLocalPort; // of the path, where its QUIC comes from
    NonceMemory seenNonces;
    std::uint64_t lastOrder = 0; // of sessions
    Log log{"rendezvous"};
};

} // namespace pelorin
