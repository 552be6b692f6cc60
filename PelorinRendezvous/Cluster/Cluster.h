#pragma once

#include "PelorinRendezvous/Cluster/Broker.h"
#include "PelorinRendezvous/Cluster/NodeMessage.h"
#include "PelorinRendezvous/Switchboard.h"

namespace pelorin {

// Makes one service of several nodes. A phone that comes to a node which does not hold its host becomes a
// guest of the node that does: there the switchboard treats it like a phone of its own, whose connection's
// words go through the broker, so that every rule and limit about a host stands in one place. Between the
// switchboard and the sockets. Queue: the service's. Owned by the Service.
class Cluster final : public Links {
public:
    Cluster(QueueRef newQueue, Links& newSockets, Broker& newBroker, Figures& newFigures,
        Switchboard::RandomBytes newRandom);
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;
    ~Cluster() override;
    void serve(Switchboard& newSwitchboard); // once, before anything else

    // Of the connection of a phone whose host is not here, upgraded: nothing of it goes to the switchboard.
    void welcomePhone(ConnectionID connection, const std::string& hostID);
    bool has(ConnectionID connection) const { return phones.contains(connection); }
    void received(ConnectionID connection, std::string_view text);
    void heard(ConnectionID connection);
    void gone(ConnectionID connection);

    // Whether the host is at any node; at once, or later, within Limits::inquiry.
    using Answer = std::function<void(bool isOnline)>;
    void ask(const std::string& hostID, Answer answer);

    void endOverdue(); // to be called each period of Deadlines
    void closeAll(); // the service ends
    bool isInReach() const { return !node.empty(); }
    std::size_t guestCount() const { return guests.size(); }

    // Of sockets, and of guests.
    void answer(ConnectionID connection, std::string response) override;
    void upgrade(ConnectionID connection, std::string response) override;
    void send(ConnectionID connection, std::string_view text) override;
    std::size_t unsentBytes(ConnectionID connection) const override;
    void close(ConnectionID connection, WebSocket::CloseCode code, std::string_view reason) override;

    static constexpr std::size_t maxQuestions = 10'000;
    static constexpr std::size_t maxGuests = 20'000;

private:
    struct Phone { // of ours, the guest of another node
        std::string token;
        SteadyTime paidBack; // of its messages' rate
        std::optional<NodeAddress> host; // where it is a guest, once that node has said something
        std::vector<std::string> early; // what it said before
        std::size_t earlySize = 0;
    };

    void stateChanged(bool nowInReach);
    void lose(); // all that is under way with other nodes
    void received(const Broker::Message& message);
    void hostAsked(const std::string& hostID, const NodeMessage::Any& message, const std::string& replyTo);
    void welcomeGuest(const std::string& hostID, const NodeAddress& phone);
    void hearOfOther(const std::string& hostID, const NodeMessage::Registered& other);
    void guestSaid(ConnectionID guest, const NodeMessage::Any& message);
    void phoneHears(ConnectionID connection, const NodeMessage::Any& message, const NodeAddress& from);
    void phoneGoesOn(ConnectionID connection, Phone& phone, const NodeAddress& host);
    bool mayPass(ConnectionID connection, Phone& phone);
    void passOn(ConnectionID connection, Phone& phone, std::string_view text);
    void nobodyAt(const std::string& replyTo);
    void nodeLeft(const std::string& other);
    void answerQuestion(const std::string& token, bool isOnline);
    void tellOffline(ConnectionID connection);
    void tellLost(ConnectionID connection); // the phone, that its host is gone
    void drop(
        ConnectionID connection, WebSocket::CloseCode code, std::string_view reason); // it and its guest
    void forgetPhone(ConnectionID connection);
    void forgetGuest(ConnectionID guest);
    void leaveGuest(ConnectionID guest);

    void announce(const std::string& hostID);
    void announceSome();
    void lookForNodes();
    bool publish(const NodeAddress& to, const NodeMessage::Any& message, const std::string& ourToken);
    NodeAddress addressOf(const std::string& token) const { return {node, token}; }
    std::string newName() const;

    const QueueRef queue;
    Links& sockets;
    Broker& broker;
    Figures& figures;
    const Switchboard::RandomBytes random;
    Switchboard* switchboard = nullptr; // from serve on
    // New each time the broker comes in reach: what was said to the former name was lost, and its senders
    // learn so. Empty: out of reach.
    std::string node;
    std::unordered_map<ConnectionID, Phone> phones;
    std::unordered_map<std::string, ConnectionID> phonesByToken;
    std::unordered_map<ConnectionID, NodeAddress> guests; // where their phones are
    std::unordered_map<std::string, ConnectionID> guestsByToken; // which is that of the phone
    std::unordered_map<std::string, Answer> questions; // by token
    Deadlines<std::string> inquiries; // tokens of phones and questions
    std::vector<std::string> toAnnounce; // hosts, after the broker was out of reach
    ConnectionID lastGuest;
    Subscription announcing;
    Subscription looking;
    Lifetime lifetime;
};

} // namespace pelorin
