#pragma once

#include "PelorinHost/HostSession.h"
#include "PelorinHost/ServerEvent.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Queue/Confined.h"

#include <map>

namespace pelorin {

// The host's way in: listens where phones may come from, admits or refuses each connection, and lets one
// phone at a time control the desktop, the one that said hello last. Queue: "dev.pelorin.host.server". Owns
// the listener and all sessions, which live on queues of their own. Owned by the HostController.
class HostServer {
public:
    using Listen = std::function<Result<std::unique_ptr<TcpListener>, NetError>(
        QueueRef queue, const std::string& address, std::uint16_t port)>;

    HostServer(SessionSurroundings surroundings, HostConfig config, Listen listen, QueueRef queue);
    ~HostServer(); // ends every session without a word

    // All on the queue.
    std::function<void(ServerEvent)> onEvent;
    std::function<void(std::string line)> onConnectionLog; // one line for the connection log
    std::function<void()> onLockWanted; // a session ended in a way that asks for the desktop to be locked

    void start();
    // No more connections; every phone is told that it was disconnected here. False when there was none.
    bool stop();
    void accept(std::unique_ptr<Channel> connection); // a new connection, not started
    bool disconnect(); // ends the active session; false when there is none

    // What programs ask for.
    struct Status {
        std::optional<std::string> listening; // "127.0.0.1:7420"
        std::optional<std::string> tailnetAddress; // this machine's, while it has one
        std::optional<std::string> dnsName; // of the tailnet
        std::uint16_t port = 0; // where phones connect; 0 while nothing listens
        std::optional<SessionFigures> session; // the active one's
        std::size_t waitingForHello = 0;
    };
    Status status() const;

private:
    using ConnectionID = std::uint64_t;

    // A session as the server sees it.
    struct Record {
        std::string peer;
        Confined<HostSession> session;
        SteadyTime since; // accepted, later: said hello
        Subscription helloTimeout;
        SessionFigures figures;
        SessionOptions options;
    };

    void refresh();
    void listenOn(const std::string& address);
    std::optional<std::string> bindAddress() const;

    // The label of an admitted peer, or the reason of its refusal.
    Result<std::string, std::string> admission(const std::string& address) const;
    void refuse(std::unique_ptr<Channel> connection, const std::string& reason);
    void makeRoom();
    void addSession(std::unique_ptr<Channel> connection, std::string peer);
    struct Reporter;
    void end(Record& record, SessionEnd how);

    void saidHello(ConnectionID id, const SessionFigures& figures);
    void updated(ConnectionID id, const SessionFigures& figures);
    void optionsChanged(ConnectionID id, SessionOptions options);
    void sessionClosed(ConnectionID id, EndKind kind, const std::string& reason);
    void activeEnded(EndKind kind, const std::string& reason);
    void waitingEnded(const Record& record, const std::string& reason);
    void lockAfter(EndKind kind, SessionOptions options);
    void pendingEndFired();

    void publish(ServerEvent event);
    void writeConnectionLog(std::string line);

    SessionSurroundings surroundings;
    HostConfig config;
    Listen listen;
    QueueRef queue;
    Log log{"server"};
    std::unique_ptr<TcpListener> listener;
    std::optional<std::string> boundAddress;
    bool reportedNoAddress = false;
    std::map<ConnectionID, Record> pendingSessions; // admitted, not yet past hello; oldest first
    std::optional<std::pair<ConnectionID, Record>> activeSession;
    ConnectionID lastID = 0;
    Subscription pendingEnd; // the grace of a phone that dropped out
    bool pendingEndLocks = false;
    Subscription timer;
    Lifetime lifetime;
};

} // namespace pelorin
