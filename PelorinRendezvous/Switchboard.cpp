#include "PelorinRendezvous/Switchboard.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Log.h"
#include "PelorinRendezvous/HostProof.h"

namespace pelorin {
namespace {
using PeerMessage::Accept;
using PeerMessage::Closed;
using PeerMessage::Connect;
using PeerMessage::Register;
using PeerMessage::Reject;
using PeerMessage::Signal;
using WebSocket::CloseCode;

constexpr std::size_t randomSize = 16; // of nonces and session ids: 22 characters
constexpr std::size_t userSize = 9; // of a relay's user name: 12 characters

// All of an id that is logged: enough to tell a few hosts apart, not enough to reach one.
std::string_view logged(const std::string& hostID)
{
    return std::string_view(hostID).substr(0, 6);
}

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};

} // namespace

Switchboard::Switchboard(QueueRef newQueue, Links& newLinks, Admission& newAdmission, Figures& newFigures,
    RelayCredentials newRelays, RandomBytes newRandom)
    : queue(std::move(newQueue)),
      links(newLinks),
      admission(newAdmission),
      figures(newFigures),
      relays(std::move(newRelays)),
      random(std::move(newRandom))
{
}

void Switchboard::welcomeHost(ConnectionID connection, const IPAddress& source)
{
    const SteadyTime now = queue->now();
    const std::string nonce = base64URLEncodedString(random(randomSize));
    admit(connection, {Stage::challenged, now, now, {}, {}, nonce, source});
    links.send(connection, ToPeer::challenge(nonce));
}

// Relays are for those who know a host that is there.
void Switchboard::welcomePhone(ConnectionID connection, const std::string& hostID)
{
    if (!isOnline(hostID)) {
        links.send(connection, ToPeer::hello(false, std::nullopt));
        return links.close(connection, CloseCode::inOrder, "offline");
    }
    const SteadyTime now = queue->now();
    admit(connection, {Stage::greeted, now, now, {}, hostID, {}, std::nullopt});
    links.send(connection, ToPeer::hello(true, relays.make(queue->wallNow(), random(userSize))));
}

void Switchboard::admit(ConnectionID connection, Peer peer)
{
    deadlines.add(connection, deadlineOf(peer));
    peers.insert({connection, std::move(peer)});
}

void Switchboard::heard(ConnectionID connection)
{
    hear(connection);
}

// Counts one message of the peer's; nothing when it is not with us any more.
Switchboard::Peer* Switchboard::hear(ConnectionID connection)
{
    const auto found = peers.find(connection);
    if (found == peers.end()) return nullptr;
    Peer& peer = found->second;
    const SteadyTime now = queue->now();
    const Rate& rate = peer.stage == Stage::host ? Limits::hostMessages : Limits::phoneMessages;
    if (!rate.take(peer.paidBack, now)) {
        breakOff(connection, CloseCode::ruleBroken, "too many messages");
        return nullptr;
    }
    peer.heard = now;
    return &peer;
}

void Switchboard::received(ConnectionID connection, std::string_view text)
{
    Peer* const peer = hear(connection);
    if (!peer || text == "pong") return;
    if (text == "ping") return links.send(connection, "pong");
    switch (peer->stage) {
    case Stage::challenged:
        return tryToRegister(connection, *peer, text);
    case Stage::host:
        return hostSaid(connection, *peer, text);
    case Stage::greeted:
    case Stage::asking:
    case Stage::connected:
        return phoneSaid(connection, *peer, text);
    }
}

// From the cheapest question to the dearest; until the last one this is a stranger.
void Switchboard::tryToRegister(ConnectionID connection, Peer& peer, std::string_view text)
{
    if (text.size() > Limits::unprovenMessage)
        return refuseRegistration(connection, CloseCode::tooLarge, "too large");
    const auto message = PeerMessage::fromHost(text);
    const auto* const registration = message ? std::get_if<Register>(&*message) : nullptr;
    if (!registration) return refuseRegistration(connection, CloseCode::ruleBroken, "not a registration");
    if (!admission.mayRegister(*peer.source, queue->now()))
        return refuseRegistration(connection, CloseCode::tryAgainLater, "too many registrations");
    auto hostID = provenHostID(*registration, peer.token);
    if (!hostID)
        return refuseRegistration(connection, CloseCode::ruleBroken, "the signature is not that of the key");
    if (!admission.mayRegisterAs(*hostID, queue->now()))
        return refuseRegistration(connection, CloseCode::tryAgainLater, "too many registrations");
    registerHost(connection, peer, *hostID);
}

void Switchboard::refuseRegistration(ConnectionID connection, CloseCode code, std::string_view reason)
{
    ++figures.registrationsRefused;
    links.send(connection, ToPeer::error(reason));
    dismiss(connection, code, reason);
}

void Switchboard::registerHost(ConnectionID connection, Peer& peer, const std::string& hostID)
{
    if (const auto older = hosts.find(hostID); older != hosts.end())
        dismiss(older->second.connection, CloseCode::inOrder, "replaced");
    ++figures.registrations;
    Log("rendezvous").debug("Host {}… registered", logged(hostID));
    peer.stage = Stage::host;
    peer.token = {};
    peer.source.reset();
    peer.hostID = hostID;
    peer.since = queue->now();
    hosts.insert({hostID, {connection, {}, 0}});
    links.send(connection, ToPeer::registered());
    if (onRegistered) onRegistered(peer.hostID);
}

// What names a session that is over, or does not fit its state, crossed with news of ours and is passed over.
void Switchboard::hostSaid(ConnectionID connection, const Peer& peer, std::string_view text)
{
    const auto message = PeerMessage::fromHost(text);
    if (!message) return breakOff(connection, CloseCode::ruleBroken, "not a message of a host");
    std::visit(
        Overloaded{
            [](const PeerMessage::Unknown&) {},
            [&](const Register&) { breakOff(connection, CloseCode::ruleBroken, "registered already"); },
            [&](const Signal& signal) { passOn(peer, signal); },
            [&](const Closed& closed) { finished(peer, closed); },
            [&](const auto& answer) { answered(peer, answer); },
        },
        *message);
}

void Switchboard::answered(const Peer& host, const Accept& message)
{
    const auto phone = phoneOf(host, message.session);
    if (!phone || phone->peer.stage != Stage::asking) return;
    if (!carry(phone->connection, ToPeer::accept(message.response)))
        return dismiss(phone->connection, CloseCode::tryAgainLater, "too slow");
    ++figures.accepted;
    --hosts.at(host.hostID).pending;
    phone->peer.stage = Stage::connected;
    phone->peer.since = queue->now();
    phone->peer.heard = queue->now();
}

void Switchboard::answered(const Peer& host, const Reject& message)
{
    const auto phone = phoneOf(host, message.session);
    if (!phone || phone->peer.stage != Stage::asking) return;
    ++figures.rejected;
    const ConnectionID connection = phone->connection;
    endSession(phone->peer);
    peers.erase(connection);
    links.send(connection, ToPeer::reject(message.reason));
    links.close(connection, CloseCode::inOrder, {});
}

void Switchboard::passOn(const Peer& host, const Signal& message)
{
    const auto phone = phoneOf(host, message.session);
    if (!phone || phone->peer.stage != Stage::connected) return;
    if (!carry(phone->connection, ToPeer::signalFromHost(message.data)))
        return dismiss(phone->connection, CloseCode::tryAgainLater, "too slow");
    ++figures.signals;
}

void Switchboard::finished(const Peer& host, const Closed& message)
{
    const auto phone = phoneOf(host, message.session);
    if (!phone) return;
    const ConnectionID connection = phone->connection;
    endSession(phone->peer);
    peers.erase(connection);
    links.close(connection, CloseCode::inOrder, {});
}

void Switchboard::phoneSaid(ConnectionID connection, Peer& peer, std::string_view text)
{
    const auto message = PeerMessage::fromPhone(text);
    if (!message) return breakOff(connection, CloseCode::ruleBroken, "not a message of a phone");
    std::visit(Overloaded{
                   [](const PeerMessage::Unknown&) {},
                   [&](const Connect& request) { ask(connection, peer, request); },
                   [&](const Signal& signal) { passOn(connection, peer, signal); },
               },
        *message);
}

void Switchboard::ask(ConnectionID connection, Peer& peer, const Connect& message)
{
    if (peer.stage != Stage::greeted) return breakOff(connection, CloseCode::ruleBroken, "a phone asks once");
    if (message.request.text.size() > Limits::carriedObject)
        return breakOff(connection, CloseCode::tooLarge, "too large");
    const auto found = hosts.find(peer.hostID);
    if (found == hosts.end()) {
        links.send(connection, ToPeer::closed());
        return dismiss(connection, CloseCode::inOrder, {});
    }
    Host& host = found->second;
    if (host.pending >= Limits::pendingPerHost || !admission.mayReach(peer.hostID, queue->now()))
        return turnAway(connection, busy);
    const std::string session = base64URLEncodedString(random(randomSize));
    const auto relay = relays.make(queue->wallNow(), random(userSize));
    if (!carry(host.connection, ToPeer::connect(session, message.request, relay)))
        return turnAway(connection, busy);
    ++figures.connectRequests;
    ++host.pending;
    ++sessions;
    host.phones.insert({session, connection});
    peer.token = session;
    peer.stage = Stage::asking;
    peer.since = queue->now();
}

// A host that does not keep up is not cut off for what a phone sends.
void Switchboard::passOn(ConnectionID connection, const Peer& phone, const Signal& message)
{
    if (phone.stage != Stage::connected)
        return breakOff(connection, CloseCode::ruleBroken, "no signals before the host has accepted");
    if (message.data.text.size() > Limits::carriedObject)
        return breakOff(connection, CloseCode::tooLarge, "too large");
    if (!carry(hosts.at(phone.hostID).connection, ToPeer::signalFromPhone(phone.token, message.data)))
        return dismiss(connection, CloseCode::tryAgainLater, "the host does not keep up");
    ++figures.signals;
}

void Switchboard::gone(ConnectionID connection)
{
    forget(connection);
}

void Switchboard::endOverdue()
{
    const SteadyTime now = queue->now();
    for (const ConnectionID connection : deadlines.takeDue(now)) {
        const auto found = peers.find(connection);
        if (found == peers.end()) continue; // also one whom another took along
        const SteadyTime end = deadlineOf(found->second);
        if (end > now)
            deadlines.add(connection, end);
        else
            endOverdue(connection, found->second.stage);
    }
}

SteadyTime Switchboard::deadlineOf(const Peer& peer)
{
    switch (peer.stage) {
    case Stage::challenged:
    case Stage::greeted:
        return peer.since + Limits::opening;
    case Stage::asking:
        return peer.since + Limits::answering;
    case Stage::host:
    case Stage::connected:
        return peer.heard + Limits::silence;
    }
    return peer.since;
}

void Switchboard::endOverdue(ConnectionID connection, Stage stage)
{
    if (stage == Stage::asking) {
        ++figures.unanswered;
        links.send(connection, ToPeer::reject(noAnswer));
        return dismiss(connection, CloseCode::inOrder, {});
    }
    ++figures.silent;
    dismiss(connection, CloseCode::ruleBroken, "nothing was heard in time");
}

void Switchboard::closeAll()
{
    for (const auto& [connection, peer] : std::exchange(peers, {}))
        links.close(connection, CloseCode::goingAway, "the service ends");
    hosts.clear();
    sessions = 0;
}

void Switchboard::replaceHost(const std::string& hostID)
{
    const auto found = hosts.find(hostID);
    if (found != hosts.end()) dismiss(found->second.connection, CloseCode::inOrder, "replaced");
}

std::optional<Duration> Switchboard::registeredFor(const std::string& hostID) const
{
    const auto found = hosts.find(hostID);
    if (found == hosts.end()) return std::nullopt;
    return queue->now() - peers.at(found->second.connection).since;
}

std::vector<std::string> Switchboard::hostIDs() const
{
    std::vector<std::string> ids;
    ids.reserve(hosts.size());
    for (const auto& [hostID, host] : hosts) ids.push_back(hostID);
    return ids;
}

std::optional<Switchboard::Phone> Switchboard::phoneOf(const Peer& host, const std::string& session)
{
    const auto& phones = hosts.at(host.hostID).phones;
    const auto found = phones.find(session);
    if (found == phones.end()) return std::nullopt;
    return Phone{found->second, peers.at(found->second)};
}

bool Switchboard::carry(ConnectionID to, const std::string& text)
{
    if (links.unsentBytes(to) + text.size() > Limits::unsentCarried) return false;
    links.send(to, text);
    return true;
}

void Switchboard::endSession(const Peer& phone)
{
    Host& host = hosts.at(phone.hostID);
    if (phone.stage == Stage::asking) --host.pending;
    host.phones.erase(phone.token);
    --sessions;
}

void Switchboard::forget(ConnectionID connection)
{
    const auto found = peers.find(connection);
    if (found == peers.end()) return;
    const Peer peer = std::move(found->second);
    peers.erase(found);
    if (peer.stage == Stage::host) return forgetHost(peer.hostID);
    if (peer.stage != Stage::asking && peer.stage != Stage::connected) return;
    endSession(peer);
    links.send(hosts.at(peer.hostID).connection, ToPeer::closedSession(peer.token));
}

void Switchboard::forgetHost(const std::string& hostID)
{
    Log("rendezvous").debug("Host {}… left", logged(hostID));
    const auto found = hosts.find(hostID);
    for (const auto& [session, phone] : found->second.phones) {
        peers.erase(phone);
        links.send(phone, ToPeer::closed());
        links.close(phone, CloseCode::inOrder, {});
    }
    sessions -= found->second.phones.size();
    hosts.erase(found);
    if (onLeft) onLeft(hostID);
}

void Switchboard::dismiss(ConnectionID connection, CloseCode code, std::string_view reason)
{
    forget(connection);
    links.close(connection, code, reason);
}

void Switchboard::turnAway(ConnectionID connection, std::string_view reason)
{
    ++figures.busy;
    links.send(connection, ToPeer::reject(reason));
    dismiss(connection, CloseCode::inOrder, {});
}

void Switchboard::breakOff(ConnectionID connection, CloseCode code, std::string_view reason)
{
    ++figures.ruleBreakers;
    dismiss(connection, code, reason);
}

} // namespace pelorin
