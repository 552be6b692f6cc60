#include "PelorinNet/Path/PathLinks.h"

#include "PelorinNet/Channel/CallOut.h"

#include <algorithm>
#include <tuple>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t maxLinks = 32;
constexpr Duration tickPeriod = 50ms;
constexpr Duration shortestSilence
    = 200ms; // what an answer from a living peer may take, delayed acknowledgement included

// Answers to Binding requests have their transaction's ID there (RFC 5389, 6).
std::optional<StunMessage::TransactionID> transactionOf(ByteView datagram)
{
    if (!StunMessage::looksLikeStun(datagram)) return std::nullopt;
    StunMessage::TransactionID id;
    std::copy_n(datagram.begin() + 8, id.size(), id.begin());
    return id;
}

bool isBetter(const PathLink& one, const PathLink& other)
{
    return std::tuple(one.hasMissed(), one.kind(), one.rtt())
        < std::tuple(other.hasMissed(), other.kind(), other.rtt());
}

} // namespace

PathLinks::PathLinks(DatagramProxy& newProxy, QueueRef newQueue, PathCredentials newLocal)
    : proxy(newProxy),
      queue(std::move(newQueue)),
      local(std::move(newLocal))
{
}

void PathLinks::start(PathCredentials newRemote, SteadyTime newRelayFrom)
{
    queue->assertCurrent();
    remote = std::move(newRemote);
    relayFrom = newRelayFrom;
    ticks = queue->every(tickPeriod, [this] { tick(); });
    tick();
}

void PathLinks::add(
    const DatagramProxy::Path& way, const SocketAddress& address, PathLink::Kind kind, std::string label)
{
    queue->assertCurrent();
    if (find(way) || (links.size() == maxLinks && !forgetOldest())) return;
    log.debug("another way: {}", label);
    check(links.emplace_back(way, address, kind, std::move(label), queue->now()), queue->now());
}

// A peer that goes from network to network leaves ways behind that nobody will answer on again.
bool PathLinks::forgetOldest()
{
    auto oldest = links.end();
    for (auto link = links.begin(); link != links.end(); ++link) {
        const bool isNeeded = link->isStanding() || proxy.path == link->way();
        if (!isNeeded && (oldest == links.end() || link->since() < oldest->since())) oldest = link;
    }
    if (oldest == links.end()) return false;
    if (!oldest->way().turn) proxy.validatedPeers.erase(oldest->way().address);
    links.erase(oldest);
    return true;
}

void PathLinks::proved(const DatagramProxy::Path& way)
{
    queue->assertCurrent();
    PathLink* link = find(way);
    if (!link) return;
    const bool wasStanding = link->isStanding();
    link->proved(queue->now());
    stands(way, wasStanding);
}

void PathLinks::stands(const DatagramProxy::Path& way, bool wasStanding)
{
    const bool isBack = !wasStanding && proxy.path == way;
    const auto alive = lifetime.watch();
    choose();
    // QUIC waits longer after each packet that is lost, and would notice seconds later.
    if (alive && isBack && proxy.path == way) callOut(onChosen, alive, PathLink(*find(way)));
}

void PathLinks::removeRelay(const TurnClient& turn)
{
    queue->assertCurrent();
    if (proxy.path && proxy.path->turn == &turn) proxy.path.reset();
    std::erase_if(links, [&](const PathLink& link) { return link.way().turn == &turn; });
    choose();
}

void PathLinks::relayUnreachable(const TurnClient& turn)
{
    queue->assertCurrent();
    for (PathLink& link : links)
        if (link.way().turn == &turn) link.fall(queue->now());
    choose();
}

void PathLinks::unreachable(const SocketAddress& peer)
{
    queue->assertCurrent();
    PathLink* link = find(DatagramProxy::Path::direct(peer));
    if (!link || !link->fall(queue->now())) return;
    log.info("the network says that {} is unreachable", link->label());
    fell(PathLink(*link));
}

void PathLinks::suspectAll()
{
    queue->assertCurrent();
    for (PathLink& link : links) link.suspect(queue->now());
    tick();
}

void PathLinks::peerChecked(const DatagramProxy::Path& way)
{
    queue->assertCurrent();
    PathLink* link = find(way);
    if (!link || !remote || link->isStanding()) return;
    // Where it did not answer before, it may now; but the peer must not set our pace.
    if (link->isCheckDue(queue->now(), false)) return check(*link, queue->now());
}

bool PathLinks::handleAnswer(ByteView datagram, const DatagramProxy::Path& over)
{
    queue->assertCurrent();
    const auto id = transactionOf(datagram);
    if (!id || !remote) return false;
    PathLink* const link = find(over);
    if (!link || !link->isAwaiting(*id)) return false;
    if (!ConnectivityCheck::isAnswer(datagram, *remote)) return true;
    const bool wasStanding = link->isStanding();
    link->answered(*id, queue->now());
    if (!over.turn) proxy.validatedPeers.insert(over.address);
    stands(over, wasStanding);
    return true;
}

void PathLinks::answerRelayed(ByteView datagram, const DatagramProxy::Path& over)
{
    queue->assertCurrent();
    const PathLink* link = find(over);
    if (!link || !remote) return;
    const auto answer = ConnectivityCheck::answer(datagram, link->remote(), local, *remote);
    if (!answer) return;
    proxy.send(*answer, over);
    peerChecked(over);
}

void PathLinks::arrivalPathChanged(const DatagramProxy::Path& over)
{
    queue->assertCurrent();
    peerChoice = over;
    if (!proxy.path)
        return choose(); // its first words would stay without an answer until we have chosen, too
    if (*proxy.path == over) return;
    // The peer left our path for another: perhaps it noticed first that ours is dead.
    find(*proxy.path)->suspect(queue->now());
}

const PathLink* PathLinks::chosen() const
{
    return proxy.path ? find(*proxy.path) : nullptr;
}

bool PathLinks::isStanding(const DatagramProxy::Path& way) const
{
    const PathLink* const link = find(way);
    return link && link->isStanding();
}

bool PathLinks::hasStanding(PathLink::Kind kind) const
{
    return std::ranges::any_of(
        links, [&](const PathLink& link) { return link.kind() == kind && link.isStanding(); });
}

void PathLinks::tick()
{
    const SteadyTime now = queue->now();
    const auto alive = lifetime.watch();
    expireChecks(now);
    if (!alive) return;
    suspectSilence(now);
    if (!alive) return;
    for (PathLink& link : links)
        if (link.isCheckDue(now, proxy.path == link.way())) check(link, now);
    choose();
}

void PathLinks::expireChecks(SteadyTime now)
{
    std::vector<PathLink> fallen;
    for (PathLink& link : links)
        if (link.expireChecks(now)) fallen.push_back(link);
    const auto alive = lifetime.watch();
    for (const PathLink& link : fallen) {
        log.info("no answer over {}", link.label());
        fell(link);
        if (!alive) return;
    }
}

void PathLinks::fell(const PathLink& link)
{
    const auto alive = lifetime.watch();
    choose();
    if (alive) callOut(onFell, alive, link);
}

// Checks come every two seconds, too seldom for who is watching a picture. But when something was sent and
// nothing comes back, the path is worth a question at once; each answer holds until more is sent.
void PathLinks::suspectSilence(SteadyTime now)
{
    if (!proxy.path) return;
    PathLink& link = *find(*proxy.path);
    const DatagramProxy::Counters& traffic = proxy.counters();
    if (!traffic.lastSent || *traffic.lastSent < link.lastAnswered()) return;
    const SteadyTime heard = std::max(traffic.lastReceived.value_or(SteadyTime{}), chosenAt);
    if (*traffic.lastSent < heard) return;
    if (now - heard <= std::max(shortestSilence, 2 * link.rtt()) || link.isSuspected()) return;
    // Whatever took it away may have taken others, and there is no time to find that out one by one.
    for (PathLink& each : links)
        if (each.isStanding()) each.suspect(now);
    callOut(onSilence, lifetime.watch());
}

void PathLinks::check(PathLink& link, SteadyTime now)
{
    if (!remote) return;
    const auto id = StunMessage::newTransactionID();
    link.checkSent(id, now);
    proxy.send(ConnectivityCheck::request(local, *remote, id), link.way());
}

const PathLink* PathLinks::best() const
{
    const PathLink* best = nullptr;
    for (const PathLink& link : links)
        if (link.isStanding() && (!best || isBetter(link, *best))) best = &link;
    return best;
}

const PathLink* PathLinks::bestChoice(SteadyTime now) const
{
    const PathLink* current = chosen();
    if (!current) {
        if (const PathLink* theirs = peerChoice ? find(*peerChoice) : nullptr; theirs && theirs->isStanding())
            return theirs;
        const PathLink* first = best();
        const bool isTooEarly = first && first->kind() != PathLink::Kind::direct && now < relayFrom;
        return isTooEarly ? nullptr : first;
    }
    if (!current->isStanding()) {
        const PathLink* other = best();
        return other ? other : current;
    }
    // The peer has left it, and there is a first sign that it knew why.
    if (current->hasMissed() && peerChoice)
        if (const PathLink* theirs = find(*peerChoice); theirs && theirs->isStanding()) return theirs;
    // A path that works is left only for a direct one; one that was taken when another fell, and may be dead
    // as well, for the first direct one that shows.
    if (current->kind() == PathLink::Kind::direct) return current;
    const bool hasShownLife = current->lastAnswered() >= chosenAt;
    for (const PathLink& link : links)
        if (link.kind() == PathLink::Kind::direct && (hasShownLife ? link.isProven() : link.isStanding()))
            return &link;
    return current;
}

void PathLinks::choose()
{
    if (!remote) return;
    const PathLink* choice = bestChoice(queue->now());
    if (!choice || proxy.path == choice->way()) return;
    proxy.path = choice->way();
    chosenAt = queue->now();
    // What it knows of this way may be five seconds old.
    find(choice->way())->suspect(queue->now());
    callOut(onChosen, lifetime.watch(), PathLink(*choice));
}

PathLink* PathLinks::find(const DatagramProxy::Path& way)
{
    const auto link = std::ranges::find(links, way, &PathLink::way);
    return link == links.end() ? nullptr : &*link;
}

const PathLink* PathLinks::find(const DatagramProxy::Path& way) const
{
    const auto link = std::ranges::find(links, way, &PathLink::way);
    return link == links.end() ? nullptr : &*link;
}

} // namespace pelorin
