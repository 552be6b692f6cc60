#pragma once

#include "PelorinRendezvous/Cluster/Cluster.h"
#include "PelorinRendezvous/Http/HttpRequest.h"
#include "PelorinRendezvous/Switchboard.h"

namespace pelorin {

// The rendezvous service without its sockets: lets connections in, answers HTTP, and hands those who speak
// WebSocket to the switchboard. Keeps nothing that outlives a connection but counts. Queue: the one given.
// Owns the switchboard; owned by the program, or a test, together with the Links.
class Service {
public:
    struct Options {
        Limits limits;
        std::vector<IPAddress> proxies; // whose word is taken for where a connection comes from
        bool showsStatus = false; // at / and /metrics
    };

    // broker: of the other nodes; none for a service of one.
    Service(QueueRef newQueue, Links& newLinks, Options newOptions, RelayCredentials relays,
        Switchboard::RandomBytes random, Broker* broker = nullptr);

    bool opened(ConnectionID connection, const IPAddress& address); // false: close it, it is not known here
    void requested(ConnectionID connection, const HttpRequest& request); // once a connection
    void requestFailed(ConnectionID connection, std::string_view status); // it was none
    void received(ConnectionID connection, std::string_view text);
    void heard(ConnectionID connection); // a control frame
    // It sent what RFC 6455 or our rules of messages do not allow.
    void failed(ConnectionID connection, WebSocket::CloseCode code);
    void gone(ConnectionID connection); // of each that was opened, once

    void stop(); // tells all that it ends

private:
    struct Visitor {
        std::optional<IPAddress> source; // none yet: a proxy's that has not said for whom it comes
        bool isWaiting = true; // for the request
    };
    bool findSource(Visitor& visitor, const HttpRequest& request);
    std::string figuresFor(std::string_view target) const;
    void answerHost(ConnectionID connection, const Visitor& visitor, const HttpRequest& request);
    void answerPhone(ConnectionID connection, const HttpRequest& request, const std::string& hostID);
    void answerStatus(ConnectionID connection, const std::string& hostID);
    void refuse(ConnectionID connection, std::string_view status, std::string_view moreFields = {});
    bool isElsewhere(ConnectionID connection) const { return cluster && cluster->has(connection); }
    void left(ConnectionID connection);
    void endOverdue();
    bool isProxy(const IPAddress& address) const;

    const QueueRef queue;
    Links& links;
    const Options options;
    const SteadyTime started;
    Admission admission;
    Figures figures;
    const std::unique_ptr<Cluster> cluster; // none: a service of one node
    Switchboard switchboard;
    std::unordered_map<ConnectionID, Visitor> visitors;
    Deadlines<ConnectionID> deadlines; // of their requests
    Subscription ticking;
    Subscription cleaning;
};

} // namespace pelorin
