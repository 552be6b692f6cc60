#include "PelorinRendezvous/Cluster/Cluster.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Log.h"

#include <set>

namespace pelorin {
namespace {
using NodeMessage::Close;
using NodeMessage::Gone;
using NodeMessage::Online;
using NodeMessage::Text;
using WebSocket::CloseCode;

constexpr ConnectionID guestIDs = ConnectionID{1} << 63; // beyond what sockets ever count to
constexpr std::chrono::seconds lookPeriod{10}; // until a node that died is missed
constexpr std::size_t maxEarly = 64 * 1024; // the request of a phone that did not wait for hello
constexpr std::size_t maxEarlyMessages = 8;

// A hundred thousand hosts in twenty seconds; all at once would crowd out the requests.
constexpr std::chrono::milliseconds announcePeriod{100};
constexpr std::size_t announcedAtOnce = 500;

} // namespace

Cluster::Cluster(QueueRef newQueue, Links& newSockets, Broker& newBroker, Figures& newFigures,
    Switchboard::RandomBytes newRandom)
    : queue(std::move(newQueue)),
      sockets(newSockets),
      broker(newBroker),
      figures(newFigures),
      random(std::move(newRandom)),
      lastGuest(guestIDs)
{
}

Cluster::~Cluster()
{
    broker.onState = {};
    broker.onMessage = {};
    broker.onNobody = {};
}

void Cluster::serve(Switchboard& newSwitchboard)
{
    switchboard = &newSwitchboard;
    switchboard->onRegistered = [this](const std::string& hostID) {
        broker.subscribe(NodeSubject::ofHost(hostID));
        announce(hostID);
    };
    switchboard->onLeft
        = [this](const std::string& hostID) { broker.unsubscribe(NodeSubject::ofHost(hostID)); };
    looking = queue->every(lookPeriod, [this] { lookForNodes(); });
    broker.onState = [this](bool nowInReach) { stateChanged(nowInReach); };
    broker.onMessage = [this](const Broker::Message& message) { received(message); };
    broker.onNobody = [this](const std::string& replyTo) { nobodyAt(replyTo); };
}

std::string Cluster::newName() const
{
    return base64URLEncodedString(random(NodeAddress::nameBytes));
}

void Cluster::stateChanged(bool nowInReach)
{
    queue->assertCurrent();
    if (isInReach()) lose();
    if (!nowInReach) return;
    node = newName();
    Log("cluster").info("The broker is in reach");
    broker.subscribe(NodeSubject::ofAll(node));
    toAnnounce = switchboard->hostIDs();
    announcing = queue->every(announcePeriod, [this] { announceSome(); });
}

void Cluster::lose()
{
    ++figures.brokerLosses;
    Log("cluster").warning("The broker is lost; until it is back, phones reach this node's own hosts only");
    broker.unsubscribe(NodeSubject::ofAll(node));
    node.clear();
    announcing.cancel();
    toAnnounce.clear();
    std::vector<ConnectionID> lost;
    lost.reserve(std::max(phones.size(), guests.size()));
    for (const auto& [connection, phone] : phones) lost.push_back(connection);
    for (const ConnectionID connection : lost) tellLost(connection);
    lost.clear();
    for (const auto& [guest, phone] : guests) lost.push_back(guest);
    for (const ConnectionID guest : lost) leaveGuest(guest);
    for (auto& [token, answer] : std::exchange(questions, {})) answer(false);
}

// Other nodes may hold the same hosts since before, or since we last heard: the ages decide.
void Cluster::announceSome()
{
    for (std::size_t i = 0; i < announcedAtOnce && !toAnnounce.empty(); ++i) {
        announce(toAnnounce.back());
        toAnnounce.pop_back();
    }
    if (toAnnounce.empty()) announcing.cancel();
}

void Cluster::announce(const std::string& hostID)
{
    const auto age = switchboard->registeredFor(hostID);
    if (!age || !isInReach()) return;
    const auto rounded = std::chrono::floor<std::chrono::milliseconds>(*age);
    broker.publish(NodeSubject::ofHost(hostID), NodeMessage::write(NodeMessage::Registered{rounded}));
}

bool Cluster::publish(const NodeAddress& to, const NodeMessage::Any& message, const std::string& ourToken)
{
    if (!isInReach()) return false;
    const bool isLast = std::holds_alternative<Gone>(message) || std::holds_alternative<Close>(message);
    const NodeAddress from = addressOf(ourToken);
    return broker.publish(
        to.subject(), NodeMessage::write(message), isLast ? from.subjectOfLastWord() : from.subject());
}

void Cluster::welcomePhone(ConnectionID connection, const std::string& hostID)
{
    const std::string token = newName();
    phones.insert({connection, {token, {}, std::nullopt, {}, 0}});
    phonesByToken.insert({token, connection});
    inquiries.add(token, queue->now() + Limits::inquiry);
    const bool isAsked = isInReach()
        && broker.publish(
            NodeSubject::ofHost(hostID), NodeMessage::write(NodeMessage::Open{}), addressOf(token).subject());
    if (!isAsked) tellOffline(connection);
}

// Before anything goes out, so that one phone's flood stops here and not at the broker.
bool Cluster::mayPass(ConnectionID connection, Phone& phone)
{
    if (Limits::phoneMessages.take(phone.paidBack, queue->now())) return true;
    ++figures.ruleBreakers;
    drop(connection, CloseCode::ruleBroken, "too many messages");
    return false;
}

void Cluster::received(ConnectionID connection, std::string_view text)
{
    Phone& phone = phones.at(connection);
    if (!mayPass(connection, phone)) return;
    if (phone.host) return passOn(connection, phone, text);
    phone.earlySize += text.size();
    if (phone.earlySize > maxEarly || phone.early.size() >= maxEarlyMessages) {
        ++figures.ruleBreakers;
        return drop(connection, CloseCode::ruleBroken, "too much before the hello");
    }
    phone.early.emplace_back(text);
}

// The node of its host wants to know that it lives; "pong" says no more than that.
void Cluster::heard(ConnectionID connection)
{
    received(connection, "pong");
}

void Cluster::passOn(ConnectionID connection, Phone& phone, std::string_view text)
{
    if (!publish(*phone.host, Text{text}, phone.token))
        drop(connection, CloseCode::tryAgainLater, "too slow");
}

void Cluster::gone(ConnectionID connection)
{
    const Phone& phone = phones.at(connection);
    if (phone.host) publish(*phone.host, Gone{}, phone.token);
    forgetPhone(connection);
}

void Cluster::forgetPhone(ConnectionID connection)
{
    const auto found = phones.find(connection);
    phonesByToken.erase(found->second.token);
    phones.erase(found);
}

void Cluster::drop(ConnectionID connection, CloseCode code, std::string_view reason)
{
    gone(connection);
    sockets.close(connection, code, reason);
}

void Cluster::tellOffline(ConnectionID connection)
{
    forgetPhone(connection);
    sockets.send(connection, ToPeer::hello(false, std::nullopt));
    sockets.close(connection, CloseCode::inOrder, "offline");
}

void Cluster::tellLost(ConnectionID connection)
{
    if (!phones.at(connection).host) return tellOffline(connection);
    forgetPhone(connection);
    sockets.send(connection, ToPeer::closed());
    sockets.close(connection, CloseCode::tryAgainLater, "the host is out of reach");
}

void Cluster::ask(const std::string& hostID, Answer answer)
{
    const std::string token = newName();
    const bool isAsked = isInReach() && questions.size() < maxQuestions
        && broker.publish(
            NodeSubject::ofHost(hostID), NodeMessage::write(NodeMessage::Ask{}), addressOf(token).subject());
    if (!isAsked) return answer(false);
    questions.insert({token, std::move(answer)});
    inquiries.add(token, queue->now() + Limits::inquiry);
}

void Cluster::answerQuestion(const std::string& token, bool isOnline)
{
    auto question = questions.extract(token);
    if (question) question.mapped()(isOnline);
}

void Cluster::received(const Broker::Message& message)
{
    queue->assertCurrent();
    const auto content = NodeMessage::parse(message.text);
    if (!content || !isInReach()) return;
    if (const auto hostID = NodeSubject::hostIn(message.subject))
        return hostAsked(*hostID, *content, message.replyTo);
    const auto to = NodeAddress::parse(message.subject);
    if (!to || to->node != node) return; // also what others ask to learn whether we live
    if (std::holds_alternative<Online>(*content)) return answerQuestion(to->token, true);
    const auto from = NodeAddress::parseSender(message.replyTo);
    if (!from) return;
    if (const auto phone = phonesByToken.find(to->token); phone != phonesByToken.end())
        return phoneHears(phone->second, *content, *from);
    const auto guest = guestsByToken.find(to->token);
    if (guest != guestsByToken.end() && guests.at(guest->second) == *from)
        return guestSaid(guest->second, *content);
    if (!std::holds_alternative<Gone>(*content) && !std::holds_alternative<Close>(*content))
        publish(*from, Gone{}, to->token);
}

void Cluster::hostAsked(
    const std::string& hostID, const NodeMessage::Any& message, const std::string& replyTo)
{
    if (const auto* const other = std::get_if<NodeMessage::Registered>(&message))
        return hearOfOther(hostID, *other);
    const auto from = NodeAddress::parse(replyTo);
    if (!from || !switchboard->isOnline(hostID)) return;
    if (std::holds_alternative<NodeMessage::Ask>(message)) publish(*from, Online{}, from->token);
    if (std::holds_alternative<NodeMessage::Open>(message)) welcomeGuest(hostID, *from);
}

// Ages need no clocks that agree. Who holds the older registration gives way, and is told where it cannot
// know.
void Cluster::hearOfOther(const std::string& hostID, const NodeMessage::Registered& other)
{
    const auto age = switchboard->registeredFor(hostID);
    if (!age) return;
    if (*age < other.age) return announce(hostID);
    switchboard->replaceHost(hostID);
}

void Cluster::welcomeGuest(const std::string& hostID, const NodeAddress& phone)
{
    if (guestsByToken.contains(phone.token)) return;
    if (guests.size() >= maxGuests) {
        publish(phone, Close{CloseCode::tryAgainLater, "too many phones"}, phone.token);
        return;
    }
    ++figures.guests;
    const ConnectionID guest = ++lastGuest;
    guests.insert({guest, phone});
    guestsByToken.insert({phone.token, guest});
    switchboard->welcomePhone(guest, hostID);
}

void Cluster::guestSaid(ConnectionID guest, const NodeMessage::Any& message)
{
    if (const auto* const said = std::get_if<Text>(&message)) switchboard->received(guest, said->text);
    if (std::holds_alternative<Gone>(message)) leaveGuest(guest);
}

void Cluster::leaveGuest(ConnectionID guest)
{
    forgetGuest(guest);
    switchboard->gone(guest);
}

void Cluster::forgetGuest(ConnectionID guest)
{
    const auto found = guests.find(guest);
    if (found == guests.end()) return;
    guestsByToken.erase(found->second.token);
    guests.erase(found);
}

void Cluster::phoneHears(ConnectionID connection, const NodeMessage::Any& message, const NodeAddress& from)
{
    Phone& phone = phones.at(connection);
    if (phone.host && *phone.host != from) {
        // A second node held the host too when it was asked for; the first to answer has it.
        if (std::holds_alternative<Text>(message)) publish(from, Gone{}, phone.token);
        return;
    }
    if (std::holds_alternative<Gone>(message)) return tellLost(connection);
    if (const auto* const close = std::get_if<Close>(&message)) {
        forgetPhone(connection);
        return sockets.close(connection, close->code, close->reason);
    }
    const auto* const said = std::get_if<Text>(&message);
    if (!said) return;
    const bool isFirst = !phone.host;
    phone.host = from;
    if (sockets.unsentBytes(connection) + said->text.size() > Limits::unsentCarried)
        return drop(connection, CloseCode::tryAgainLater, "too slow");
    sockets.send(connection, said->text);
    if (isFirst) phoneGoesOn(connection, phone, from);
}

void Cluster::phoneGoesOn(ConnectionID connection, Phone& phone, const NodeAddress& host)
{
    ++figures.phonesElsewhere;
    for (const std::string& text : std::exchange(phone.early, {})) {
        if (publish(host, Text{text}, phone.token)) continue;
        return drop(connection, CloseCode::tryAgainLater, "too slow");
    }
}

void Cluster::nobodyAt(const std::string& replyTo)
{
    queue->assertCurrent();
    if (const auto other = NodeSubject::askedIn(replyTo, node)) return nodeLeft(*other);
    const auto address = NodeAddress::parse(replyTo);
    if (!address || address->node != node) return;
    answerQuestion(address->token, false);
    if (const auto phone = phonesByToken.find(address->token); phone != phonesByToken.end())
        tellLost(phone->second);
    if (const auto guest = guestsByToken.find(address->token); guest != guestsByToken.end())
        leaveGuest(guest->second);
}

// A node that is killed says nothing, and most sessions say nothing to it for minutes.
void Cluster::lookForNodes()
{
    if (!isInReach()) return;
    std::set<std::string> others;
    for (const auto& [connection, phone] : phones)
        if (phone.host) others.insert(phone.host->node);
    for (const auto& [guest, phone] : guests) others.insert(phone.node);
    for (const std::string& other : others)
        broker.publish(NodeSubject::alive(other), {}, NodeSubject::aliveReply(node, other));
}

void Cluster::nodeLeft(const std::string& other)
{
    std::vector<ConnectionID> left;
    for (const auto& [connection, phone] : phones)
        if (phone.host && phone.host->node == other) left.push_back(connection);
    for (const ConnectionID connection : left) tellLost(connection);
    left.clear();
    for (const auto& [guest, phone] : guests)
        if (phone.node == other) left.push_back(guest);
    for (const ConnectionID guest : left) leaveGuest(guest);
}

void Cluster::endOverdue()
{
    for (const std::string& token : inquiries.takeDue(queue->now())) {
        answerQuestion(token, false);
        const auto phone = phonesByToken.find(token);
        if (phone != phonesByToken.end() && !phones.at(phone->second).host) tellOffline(phone->second);
    }
}

void Cluster::closeAll()
{
    looking.cancel();
    std::vector<ConnectionID> all;
    all.reserve(phones.size());
    for (const auto& [connection, phone] : phones) all.push_back(connection);
    for (const ConnectionID connection : all) drop(connection, CloseCode::goingAway, "the service ends");
}

void Cluster::answer(ConnectionID connection, std::string response)
{
    sockets.answer(connection, std::move(response));
}

void Cluster::upgrade(ConnectionID connection, std::string response)
{
    sockets.upgrade(connection, std::move(response));
}

void Cluster::send(ConnectionID connection, std::string_view text)
{
    if (connection < guestIDs) return sockets.send(connection, text);
    const auto guest = guests.find(connection);
    if (guest == guests.end() || publish(guest->second, Text{text}, guest->second.token)) return;
    // What one end of a session misses ends it; not from in here, where the switchboard is at it.
    queue->post([this, connection, alive = lifetime.watch()] {
        if (alive && guests.contains(connection)) leaveGuest(connection);
    });
}

std::size_t Cluster::unsentBytes(ConnectionID connection) const
{
    return connection < guestIDs ? sockets.unsentBytes(connection) : 0; // its own node asks its socket
}

void Cluster::close(ConnectionID connection, CloseCode code, std::string_view reason)
{
    if (connection < guestIDs) return sockets.close(connection, code, reason);
    const auto guest = guests.find(connection);
    if (guest == guests.end()) return;
    publish(guest->second, Close{code, reason}, guest->second.token);
    forgetGuest(connection);
}

} // namespace pelorin
