#pragma once

#include "PelorinHost/RemoteEntrance.h"
#include "PelorinHost/Screen/PrivacyScreen.h"
#include "PelorinHost/ServerEvent.h"
#include "PelorinHost/Trust/SourcePenalties.h"
#include "PelorinHost/Trust/TailnetAdmission.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Queue/Confined.h"

#include <map>

namespace pelorin {

// The host's way in: listens where phones may come from, admits or refuses each connection, secures it with
// the paired phones' keys, and lets one phone at a time control the desktop, the one that said hello last.
// Queue: "dev.pelorin.host.server". Owns the listener, the remote entrance and all sessions, which live on
// queues of their own. Owned by the HostController.
class HostServer {
public:
    using Listen = std::function<Result<std::unique_ptr<TcpListener>, NetError>(
        QueueRef queue, const std::string& address, std::uint16_t port)>;

    // Without remote nobody comes in from elsewhere.
    HostServer(SessionSurroundings surroundings, HostConfig config, Listen listen, QueueRef queue,
        std::optional<RemoteEntrance::Means> remote = {});
    ~HostServer(); // ends every session without a word

    // All on the queue.
    std::function<void(ServerEvent)> onEvent;
    std::function<void(std::string line)> onConnectionLog; // one line for the connection log

    void start();
    // No more connections; every phone is told that it was disconnected here. False when there was none.
    bool stop();
    void accept(std::unique_ptr<Channel> connection); // a new connection, not started
    // A phone that has proved itself on its way here: it came over a remote path, which its channel
    // describes.
    void acceptRemote(std::unique_ptr<Channel> connection, std::string phoneName);
    bool disconnect(); // ends the active session; false when there is none

    // What programs ask for.
    struct Status {
        std::optional<std::string> listening; // "127.0.0.1:7420"
        std::optional<std::string> tailnetAddress; // this machine's, while it has one
        std::optional<std::string> dnsName; // of the tailnet
        std::uint16_t port = 0; // where phones connect; 0 while nothing listens
        std::optional<SessionFigures> session; // the active one's
        std::size_t waitingForHello = 0;
        std::size_t blockedSources = 0; // turned away for a while
        std::optional<std::string> hostID; // at the rendezvous service, while registered there
    };
    // Who connects and stays silent, or connects again and again, must not use up the machine.
    static constexpr std::size_t maxPendingSessions = 32;
    static constexpr std::chrono::seconds helloTimeout{10}; // a phone says hello with its first packet

    Status status() const;

private:
    using ConnectionID = std::uint64_t;

    // A session as the server sees it.
    struct Record {
        std::string peer;
        std::string source; // the address it came from, or the path
        std::string identity; // of the paired phone; known with hello
        std::shared_ptr<void> place; // among its source's connections without hello; given up with it
        Confined<HostSession> session;
        SteadyTime since; // accepted, later: said hello
        Subscription helloTimeout;
        SessionFigures figures;
        SessionOptions options;
    };

    // A connection whose owner Tailscale is being asked about.
    struct Asking {
        std::unique_ptr<Channel> connection;
        std::shared_ptr<void> place;
        Subscription question;
    };

    void refresh();
    void listenOn(const std::string& address);
    std::optional<std::string> bindAddress() const;
    bool isTestMode() const { return config.allowLoopbackForTesting; }
    bool requiresPairing() const { return config.requirePairing && !isTestMode(); }
    void keysChanged();
    void renewKeys();
    void endRemoved();

    void openRemoteEntrance();
    void acceptLoopback(std::unique_ptr<Channel> connection);
    void acceptTailnet(std::unique_ptr<Channel> connection);
    void judged(ConnectionID id, const TailnetAdmission::Verdict& verdict);
    std::unique_ptr<Channel> secured(std::unique_ptr<Channel> connection) const;
    void refuse(std::unique_ptr<Channel> connection, const std::string& reason);
    void reject(const std::string& peer, const std::string& logged, const std::string& shown);
    void penalize(const std::string& source, SourcePenalties::Offence offence);
    std::size_t waitingCount() const { return asking.size() + pendingSessions.size(); }
    void makeRoom();
    void addSession(std::unique_ptr<Channel> connection, std::string peer, std::string source,
        std::shared_ptr<void> place = {});
    struct Reporter;
    void end(Record& record, SessionEnd how);

    void saidHello(ConnectionID id, const SessionFigures& figures, const std::string& identity);
    void resumeFromPendingEnd();
    void updated(ConnectionID id, const SessionFigures& figures);
    void optionsChanged(ConnectionID id, SessionOptions options);
    void sessionClosed(
        ConnectionID id, EndKind kind, const std::optional<std::string>& reason, bool tlsFailed);
    void activeEnded(EndKind kind, const std::string& reason);
    void waitingEnded(const Record& record, const std::string& reason);
    void handshakeFailed(const Record& record, const std::optional<std::string>& reason);
    void updatePrivacy();
    void lockAfter(EndKind kind, SessionOptions options);
    void pendingEndFired();
    void lock();
    void locked(LockedBy by);

    void publish(ServerEvent event);
    void writeConnectionLog(std::string line);

    SessionSurroundings surroundings;
    HostConfig config;
    Listen listen;
    QueueRef queue;
    std::optional<RemoteEntrance::Means> remoteMeans; // until started
    Log log{"server"};
    TailnetAdmission admission;
    SourcePenalties penalties;
    std::optional<std::string> tailnetAddress;
    std::unique_ptr<TcpListener> listener;
    std::optional<std::string> boundAddress;
    int keysGeneration = 0; // raised with every change of the store's keys
    int boundKeysGeneration = -1; // that the listener's keys are of
    std::shared_ptr<const PelorinTLS::ServerParameters> keys; // none where nobody needs to be paired
    bool reportedNoAddress = false;
    std::unique_ptr<RemoteEntrance> remoteEntrance;
    std::map<ConnectionID, Asking> asking; // oldest first
    std::map<ConnectionID, Record> pendingSessions; // admitted, not yet past hello; oldest first
    std::optional<std::pair<ConnectionID, Record>> activeSession;
    ConnectionID lastID = 0;
    Subscription pendingEnd; // the grace of a phone that dropped out
    bool pendingEndLocks = false;
    int locksUnderWay = 0;
    Confined<ScreenLock> screenLock; // made when first used
    Confined<PrivacyScreen> privacyScreen; // likewise
    bool isPrivate = false;
    Subscription timer;
    Subscription keysWatch;
    Lifetime lifetime;
};

} // namespace pelorin
