#pragma once

#include "PelorinRendezvous/Admission.h"
#include "PelorinRendezvous/Deadlines.h"
#include "PelorinRendezvous/Figures.h"
#include "PelorinRendezvous/Links.h"
#include "PelorinRendezvous/RelayCredentials.h"

#include <unordered_map>

namespace pelorin {

// Brings phones and hosts together: proves hosts, passes on what the ends of a session say to each other, and
// decides who may say what when. Knows WebSocket peers only, by their connections. Queue: the service's.
// Owned by the Service.
class Switchboard {
public:
    using RandomBytes = std::function<Bytes(std::size_t)>;

    Switchboard(QueueRef newQueue, Links& newLinks, Admission& newAdmission, Figures& newFigures,
        RelayCredentials newRelays, RandomBytes newRandom);

    void welcomeHost(ConnectionID connection, const IPAddress& source);
    void welcomePhone(ConnectionID connection, const std::string& hostID);
    void received(ConnectionID connection, std::string_view text);
    void heard(ConnectionID connection); // something other than a text
    void gone(ConnectionID connection);
    void endOverdue(); // to be called each period of Deadlines
    void closeAll(); // the service ends
    void replaceHost(const std::string& hostID); // it has registered elsewhere

    bool isOnline(const std::string& hostID) const { return hosts.contains(hostID); }
    std::size_t hostCount() const { return hosts.size(); }
    std::optional<Duration> registeredFor(const std::string& hostID) const;
    std::vector<std::string> hostIDs() const;
    std::size_t sessionCount() const { return sessions; }

    // From inside other calls; none may be made from them. Not when all are closed.
    std::function<void(const std::string& hostID)> onRegistered;
    std::function<void(const std::string& hostID)> onLeft;

    // Texts for the person at the phone.
    static constexpr std::string_view noAnswer = "电脑没有回应";
    static constexpr std::string_view busy = "电脑正忙，请稍后再试";

private:
    enum class Stage {
        challenged, // a host before its registration
        host,
        greeted, // a phone before its request
        asking, // its request waits for the host's answer
        connected,
    };
    struct Peer {
        Stage stage;
        SteadyTime since; // of the stage
        SteadyTime heard; // last
        SteadyTime paidBack; // of its messages' rate
        std::string hostID; // its own, or whom it wants
        std::string token; // challenged: the nonce; asking and connected: the session
        std::optional<IPAddress> source; // while challenged
    };
    struct Host {
        ConnectionID connection;
        std::map<std::string, ConnectionID> phones; // by session
        std::size_t pending = 0; // of those, not yet answered
    };
    struct Phone { // of a host's session
        ConnectionID connection;
        Peer& peer;
    };

    void admit(ConnectionID connection, Peer peer);
    Peer* hear(ConnectionID connection);

    void tryToRegister(ConnectionID connection, Peer& peer, std::string_view text);
    void refuseRegistration(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason);
    void registerHost(ConnectionID connection, Peer& peer, const std::string& hostID);

    void hostSaid(ConnectionID connection, const Peer& peer, std::string_view text);
    void answered(const Peer& host, const PeerMessage::Accept& message);
    void answered(const Peer& host, const PeerMessage::Reject& message);
    void passOn(const Peer& host, const PeerMessage::Signal& message);
    void finished(const Peer& host, const PeerMessage::Closed& message);

    void phoneSaid(ConnectionID connection, Peer& peer, std::string_view text);
    void ask(ConnectionID connection, Peer& peer, const PeerMessage::Connect& message);
    void passOn(ConnectionID connection, const Peer& phone, const PeerMessage::Signal& message);

    std::optional<Phone> phoneOf(const Peer& host, const std::string& session);
    bool carry(ConnectionID to, const std::string& text);
    void endSession(const Peer& phone); // in the host's record
    void forget(ConnectionID connection); // the peer, telling those it leaves behind
    void forgetHost(const std::string& hostID);
    void dismiss(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason);
    void turnAway(ConnectionID connection, std::string_view reason);
    void breakOff(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason);
    void endOverdue(ConnectionID connection, Stage stage);
    static SteadyTime deadlineOf(const Peer& peer); // never earlier than it was

    const QueueRef queue;
    Links& links;
    Admission& admission;
    Figures& figures;
    const RelayCredentials relays;
    const RandomBytes random;
    std::unordered_map<ConnectionID, Peer> peers;
    Deadlines<ConnectionID> deadlines; // of the peers
    std::unordered_map<std::string, Host> hosts; // by host id
    std::size_t sessions = 0;
};

} // namespace pelorin
