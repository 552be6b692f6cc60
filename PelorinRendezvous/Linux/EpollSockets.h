#pragma once

#include "PelorinNet/OwnedDescriptor.h"
#include "PelorinNet/Stun/SocketAddress.h"
#include "PelorinRendezvous/Connection.h"
#include "PelorinRendezvous/ServerTls.h"

#include <deque>

namespace pelorin {

// The service's TCP sockets, all in one epoll descriptor on one queue: what an idle peer costs is its record
// here. Queue: the one given. Owns the connections; owned by the program together with the Service, and
// destroyed after it.
class EpollSockets final : public Links {
public:
    // tls: none for plain WebSocket. Fails with the system's reason.
    static Result<std::unique_ptr<EpollSockets>, NetError> listen(
        QueueRef queue, const SocketAddress& address, std::shared_ptr<const ServerTls> tls);
    ~EpollSockets() override;

    const SocketAddress& address() const { return bound; } // with the port that the system chose
    void serve(Service& newService); // from here on connections are accepted
    // Accepts no more; whenAllGone runs once no connection is left, which a service that has told all to go
    // brings about within seconds.
    void stop(Task whenAllGone);

    void answer(ConnectionID connection, std::string response) override;
    void upgrade(ConnectionID connection, std::string response) override;
    void send(ConnectionID connection, std::string_view text) override;
    std::size_t unsentBytes(ConnectionID connection) const override;
    void close(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason) override;

private:
    struct Socket {
        Socket(OwnedDescriptor newDescriptor, ConnectionID id, Service& service,
            std::unique_ptr<TlsSession> session)
            : descriptor(std::move(newDescriptor)),
              connection(id, service, std::move(session))
        {
        }

        OwnedDescriptor descriptor;
        Connection connection;
        bool isDirty = false; // among those to be flushed
        bool awaitsWritable = false;
        bool isShut = false; // our direction
        bool hasDeadline = false;
    };
    struct Farewell {
        ConnectionID connection;
        SteadyTime end;
    };

    EpollSockets(QueueRef newQueue, std::shared_ptr<const ServerTls> newTls);
    std::optional<NetError> open(const SocketAddress& address);
    void handleEvents();
    void acceptAll();
    void accept(OwnedDescriptor descriptor, const IPAddress& address);
    void pauseAccepting();
    void receive(ConnectionID id);
    Socket* find(ConnectionID id);
    void touched(ConnectionID id, Socket& socket); // it may have something to send, or have ended
    void flushAll();
    void flush(ConnectionID id);
    bool sendWhatFits(Socket& socket);
    void watch(ConnectionID id, Socket& socket, bool forWriting);
    void setDeadline(ConnectionID id, Socket& socket);
    void endOverdue();
    void cutOff(ConnectionID id);
    void drop(ConnectionID id);

    const QueueRef queue;
    const std::shared_ptr<const ServerTls> tls;
    const std::unique_ptr<std::uint8_t[]> buffer; // for what any of them receives
    OwnedDescriptor poller;
    OwnedDescriptor listener;
    SocketAddress bound;
    Service* service = nullptr; // from serve on
    ConnectionID lastID = 0;
    std::unordered_map<ConnectionID, Socket> sockets;
    std::vector<ConnectionID> dirty;
    std::deque<Farewell> farewells; // in order of time
    Task whenAllGone;
    bool isFlushPosted = false;
    bool isFailing = false; // to accept; logged once a spell
    Subscription events;
    Subscription retry;
    Subscription ticking;
    Lifetime lifetime;
};

} // namespace pelorin
