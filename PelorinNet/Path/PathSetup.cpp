#include "PelorinNet/Path/PathSetup.h"

#include "PelorinNet/Path/NameLookup.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <ranges>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Duration firstPathDeadline = 15s; // two tries at a silent relay
constexpr Duration directPreference
    = 400ms; // after which a relayed path is taken if there is no direct one yet
constexpr Duration searchTime = 10s; // of the first search for a direct path
constexpr Duration laterSearchTime = 2s;
constexpr Duration firstSearchPause = 15s; // doubled with each search that finds nothing
constexpr Duration longestSearchPause = 5min;
constexpr Duration relayPatience = 1s; // then another server may be quicker
constexpr std::size_t maxAsked = 2; // STUN servers at once, and addresses of each: one may be down

// Told in one session. A phone that changes its network tells three or four new ones each time; a peer that
// tells ever more must not have us knock everywhere.
constexpr std::size_t maxRemoteCandidates = 256;

bool isRelay(const Candidate& candidate)
{
    return candidate.type == "relay" || candidate.type == "relay2";
}

std::optional<std::chrono::seconds> secondsIn(const char* text)
{
    if (!text) return std::nullopt;
    int seconds = 0;
    const std::string_view all = text;
    const auto [end, error] = std::from_chars(all.begin(), all.end(), seconds);
    if (error != std::errc() || end != all.end() || seconds < 0) return std::nullopt;
    return std::chrono::seconds(seconds);
}

} // namespace

PathSetup::Switches PathSetup::Switches::fromEnvironment()
{
    const char* force = std::getenv("PELORIN_FORCE_TURN");
    return {.forceTurn = force && *force && std::string_view(force) != "0",
        .breakAfter = secondsIn(std::getenv("PELORIN_TEST_BREAK_AFTER"))};
}

PathSetup::PathSetup(
    QueueRef pathQueue, PathServers newServers, PathServers::Lookup newLookup, Switches newSwitches)
    : queue(std::move(pathQueue)),
      servers(std::move(newServers)),
      lookup(std::move(newLookup)),
      switches(newSwitches)
{
}

std::unique_ptr<PathSetup> PathSetup::onThisMachine(QueueRef pathQueue, PathServers servers)
{
    const auto lookUp = [](const PathServers::Server& server, const QueueRef& on,
                            std::function<void(std::vector<SocketAddress>)> done) {
        lookUpName(server, on, std::move(done));
    };
    return std::make_unique<PathSetup>(
        std::move(pathQueue), std::move(servers), lookUp, Switches::fromEnvironment());
}

PathSetup::~PathSetup() = default;

Result<void, NetError> PathSetup::open()
{
    queue->assertCurrent();
    auto opened = DatagramProxy::open(queue);
    if (!opened) return std::unexpected(opened.error());
    proxy = std::move(*opened);
    binder = std::make_unique<StunBinder>(queue);
    puncher = std::make_unique<Puncher>(
        *proxy, queue, [this](const SocketAddress& peer) { return filter.mayCheck(peer); });
    links = std::make_unique<PathLinks>(*proxy, queue, puncher->local);

    proxy->onOtherDatagram
        = [this](ByteView datagram, const SocketAddress& source) { receive(datagram, source); };
    proxy->onRelayedStun
        = [this](ByteView datagram, const DatagramProxy::Path& over) { receiveRelayed(datagram, over); };
    proxy->onUnreachable = [this](const SocketAddress& peer) { links->unreachable(peer); };
    proxy->onArrivalPathChange = [this](const DatagramProxy::Path& over) { links->arrivalPathChanged(over); };
    puncher->onPeerCheck = [this](const SocketAddress& source) { peerChecked(source); };
    links->onChosen = [this](const PathLink& link) { chosen(link); };
    // A NAT that forgets us breaks what our relays have for us as well, without a word.
    links->onSilence = [this] {
        for (const auto& relay : relays) relay->distrust();
    };
    links->onFell = [this](const PathLink& link) { fell(link); };

    if (!switches.forceTurn) {
        localCandidates = hostCandidates(proxy->network().localAddress().port);
        learnReflexive();
    }
    return {};
}

std::uint16_t PathSetup::localPort() const
{
    return proxy->local().localAddress().port;
}

void PathSetup::setQuicEndpoint(const SocketAddress& listener)
{
    queue->assertCurrent();
    proxy->quicEndpoint = listener;
}

// What we tell of ourselves

void PathSetup::learnReflexive()
{
    isReflexiveSettled = false;
    const Questions open = std::make_shared<std::size_t>(0);
    const auto asked = servers.stun | std::views::take(maxAsked);
    *open = asked.size();
    if (asked.empty()) return settleReflexive();
    const auto alive = lifetime.watch();
    for (const auto& server : asked) {
        lookup(server, queue, [this, open, alive](const std::vector<SocketAddress>& addresses) {
            if (!alive) return;
            for (const SocketAddress& address : addresses | std::views::take(maxAsked))
                askReflexive(address, open);
            reflexiveAnswered(open, std::unexpected(NetError{"the STUN server's name has no address"}));
        });
        if (!alive) return;
    }
}

void PathSetup::askReflexive(const SocketAddress& server, const Questions& open)
{
    ++*open;
    filter.avoid(server);
    if (std::ranges::find(stunServers, server) == stunServers.end()) stunServers.push_back(server);
    binder->binding(proxy->network(), server,
        [this, open](const Result<SocketAddress, NetError>& address) { reflexiveAnswered(open, address); });
}

void PathSetup::reflexiveAnswered(const Questions& open, const Result<SocketAddress, NetError>& address)
{
    const bool isLast = --*open == 0;
    const auto alive = lifetime.watch();
    if (address)
        announce({*address, "srflx"});
    else if (isLast && !isReflexiveSettled)
        log.info("no reflexive address: {}", address.error().description);
    if (alive && (address || isLast)) settleReflexive();
}

void PathSetup::settleReflexive()
{
    isReflexiveSettled = true;
    gathering.cancel();
    if (onGathered) std::exchange(onGathered, {})();
}

void PathSetup::gather(Duration atMost, Task done)
{
    queue->assertCurrent();
    if (isReflexiveSettled || switches.forceTurn)
        return queue->post([done = std::move(done), alive = lifetime.watch()]() mutable {
            if (alive) done();
        });
    onGathered = std::move(done);
    gathering = queue->after(atMost, [this] { std::exchange(onGathered, {})(); });
}

PathDescription PathSetup::local()
{
    return {puncher->local.ufrag, puncher->local.password, localCandidates};
}

void PathSetup::announce(const Candidate& candidate)
{
    if (std::ranges::find(localCandidates, candidate) != localCandidates.end()) return;
    localCandidates.push_back(candidate);
    if (pipe.send) pipe.send({{"candidates", nlohmann::json::array({candidate.json()})}});
}

// The search

void PathSetup::start(
    PathDescription remote, std::optional<TurnCredentials> turn, SignalPipe newPipe, Completion newCompletion)
{
    queue->assertCurrent();
    require(!puncher->remote, "a path is set up once");
    credentials = std::move(turn);
    pipe = std::move(newPipe);
    completion = std::move(newCompletion);
    const PathCredentials remoteCredentials{std::move(remote.ufrag), std::move(remote.password)};
    puncher->remote = remoteCredentials;
    links->start(remoteCredentials, queue->now() + (switches.forceTurn ? Duration{} : directPreference));
    deadline = queue->after(firstPathDeadline, [this] {
        finish(std::unexpected(
            NetError{fmt::format("no path to the peer within 15 s ({} checks sent, {} answered)",
                puncher->checksSent(), puncher->checksAnswered())}));
    });
    // The peer has heard of most of them already; telling all again is simpler than keeping account.
    nlohmann::json all = nlohmann::json::array();
    for (const Candidate& candidate : localCandidates) all.push_back(candidate.json());
    if (!all.empty() && pipe.send) pipe.send({{"candidates", std::move(all)}});

    if (credentials && !servers.turn.empty()) {
        startRelay(servers.turn.front(), "relay");
        backupTimer = queue->after(relayPatience, [this] {
            if (!relays.front()->client() || !relays.front()->client()->relayed()) startBackup();
        });
    }
    for (const Candidate& candidate : remote.candidates) add(candidate);
    punch();
    listen();
}

void PathSetup::listen()
{
    if (!pipe.inbox) return;
    listenFor("error", [this](const nlohmann::json& error) {
        finish(std::unexpected(NetError{error.is_string() ? error.get<std::string>() : "the peer gave up"}));
    });
    listenForCandidates();
}

void PathSetup::listenForCandidates()
{
    listenFor("candidates", [this](const nlohmann::json& candidates) {
        listenForCandidates();
        learnRemote(candidates);
    });
}

void PathSetup::listenFor(const std::string& key, std::function<void(const nlohmann::json&)> act)
{
    pipe.inbox->next(key, queue,
        [this, key, act = std::move(act), alive = lifetime.watch()](
            const Result<nlohmann::json, NetError>& message) {
            if (!alive) return;
            // Of interest only before there is a path.
            if (!message) return finish(std::unexpected(message.error()));
            act(message->at(key));
        });
}

void PathSetup::learnRemote(const nlohmann::json& candidates)
{
    if (!candidates.is_array()) return;
    for (const nlohmann::json& each : candidates)
        if (const auto candidate = Candidate::parse(each)) add(*candidate);
}

void PathSetup::add(const Candidate& remote)
{
    const bool isKnown = std::ranges::find(remoteCandidates, remote) != remoteCandidates.end();
    if (isKnown || remoteCandidates.size() == maxRemoteCandidates) return;
    remoteCandidates.push_back(remote);
    reachThroughRelays(remote);
    if (switches.forceTurn) return;
    if (isRelay(remote)) return addRelayCandidate(remote);
    // A search that has ended begins anew for it: the peer's network has changed.
    if (hasDirectPath()) return;
    puncher->add(remote);
    if (punchTimer) punch();
}

void PathSetup::addRelayCandidate(const Candidate& remote)
{
    if (!filter.mayCheckRelay(remote.address)) return;
    links->add(DatagramProxy::Path::direct(remote.address), remote.address, PathLink::Kind::oneRelay,
        "relay " + remote.address.text());
}

void PathSetup::reachThroughRelays(const Candidate& remote)
{
    // An interface's own address means nothing to a relay.
    if (!isRelay(remote) && remote.type != "srflx") return;
    for (const auto& relay : relays)
        if (relay->client() && filter.mayRelayTo(remote.address, relay->client()->server()))
            relay->reach(remote.address);
}

// Relays

void PathSetup::startBackup()
{
    if (relays.size() != 1 || !credentials) return;
    startRelay(servers.turn.size() > 1 ? servers.turn[1] : servers.turn.front(), "relay2");
}

void PathSetup::startRelay(const PathServers::Server& server, std::string candidateType)
{
    Relay& relay = *relays.emplace_back(
        std::make_unique<Relay>(*proxy, queue, lookup, server, *credentials, std::move(candidateType)));
    relay.onServerKnown = [this](const std::vector<SocketAddress>& addresses) {
        for (const SocketAddress& address : addresses) filter.avoid(address);
    };
    relay.onAllocated = [this](const Candidate& candidate) {
        filter.avoid(candidate.address);
        for (const Candidate& remote : remoteCandidates) reachThroughRelays(remote);
        announce(candidate);
    };
    relay.onChannel = [this, &relay](TurnClient& turn, std::uint16_t channel, const SocketAddress& peer) {
        channelOpened(relay, turn, channel, peer);
    };
    relay.isNeeded = [this](const DatagramProxy::Path& way) { return links->isStanding(way); };
    relay.onUnreachable = [this, &relay](TurnClient& turn) {
        relay.distrust();
        links->relayUnreachable(turn); // may destroy us
    };
    relay.onLost = [this](TurnClient& turn) { links->removeRelay(turn); };
    relay.onFailed = [this] {
        if (!links->chosen()) startBackup();
    };
    relay.start();
}

void PathSetup::channelOpened(
    Relay& relay, TurnClient& turn, std::uint16_t channel, const SocketAddress& peer)
{
    const auto remote = std::ranges::find(remoteCandidates, peer, &Candidate::address);
    const bool isRelayed = remote != remoteCandidates.end() && isRelay(*remote);
    links->add(DatagramProxy::Path::relayed(turn, channel), peer,
        isRelayed ? PathLink::Kind::twoRelays : PathLink::Kind::oneRelay, "relay " + relay.name());
}

// Direct paths

void PathSetup::punch()
{
    if (switches.forceTurn) return;
    std::vector<Candidate> targets;
    for (const Candidate& candidate : remoteCandidates)
        if (!isRelay(candidate)) targets.push_back(candidate);
    const bool isFirst = searches++ == 0;
    punchTimer = {};
    puncher->start(targets, queue->now() + (isFirst ? searchTime : laterSearchTime),
        [this](const std::optional<Candidate>& peer) {
            if (peer) return punched(*peer);
            const Duration pause
                = std::min(longestSearchPause, firstSearchPause * (1 << std::min(searches - 1, 5)));
            punchTimer = queue->after(pause, [this] { punch(); });
        });
}

void PathSetup::punched(const Candidate& peer)
{
    searches = 0;
    const auto way = DatagramProxy::Path::direct(peer.address);
    proxy->validatedPeers.insert(peer.address);
    links->add(way, peer.address, PathLink::Kind::direct, "direct " + peer.address.text());
    links->proved(way);
}

void PathSetup::peerChecked(const SocketAddress& source)
{
    const auto way = DatagramProxy::Path::direct(source);
    // Where the peer can reach us from we may reach it: also from another address than the one that was found
    // first, as after a change of its network.
    if (!switches.forceTurn && filter.mayCheck(source))
        links->add(way, source, PathLink::Kind::direct, "direct " + source.text());
    links->peerChecked(way);
}

void PathSetup::receive(ByteView datagram, const SocketAddress& source)
{
    if (!StunMessage::looksLikeStun(datagram)) return;
    if (std::ranges::find(stunServers, source) != stunServers.end()) {
        binder->handle(datagram);
        return;
    }
    if (links->handleAnswer(datagram, DatagramProxy::Path::direct(source)) || switches.forceTurn) return;
    puncher->handle(datagram, source);
}

void PathSetup::receiveRelayed(ByteView datagram, const DatagramProxy::Path& over)
{
    if (!links->handleAnswer(datagram, over)) links->answerRelayed(datagram, over);
}

// The path

void PathSetup::chosen(const PathLink& link)
{
    // A copy, as who hears of it may end us and the link.
    const std::string label = link.label(); // NOLINT(performance-unnecessary-copy-initialization)
    if (completion) {
        deadline.cancel();
        log.info("path: {}", label);
        if (switches.breakAfter) breakTimer = queue->after(*switches.breakAfter, [this] { breakRelay(); });
        startBackup();
        return finish(label);
    }
    log.info("path: {} ({})", label, proxy->statistics());
    if (isBreakDue) breakRelay();
    if (onPathChange) onPathChange(label);
}

void PathSetup::fell(const PathLink& link)
{
    if (link.way().turn)
        for (const auto& relay : relays)
            if (relay->client() == link.way().turn) relay->distrust();
    if (link.kind() != PathLink::Kind::direct || switches.forceTurn || hasDirectPath()) return;
    // The NAT in front of us may have forgotten us or changed: ask again, and tell the peer.
    searches = 0;
    learnReflexive();
    punch();
}

bool PathSetup::hasDirectPath() const
{
    const PathLink* link = links->chosen();
    return link && link->kind() == PathLink::Kind::direct && link->isStanding();
}

void PathSetup::networkChanged()
{
    queue->assertCurrent();
    if (!puncher || !puncher->remote) return;
    links->suspectAll();
    if (switches.forceTurn) return;
    for (const Candidate& candidate : hostCandidates(proxy->network().localAddress().port))
        announce(candidate);
    searches = 0;
    learnReflexive();
    punch();
}

void PathSetup::renewCredentials(TurnCredentials fresh)
{
    queue->assertCurrent();
    if (!credentials) return;
    credentials = std::move(fresh);
    for (const auto& relay : relays) relay->setCredentials(*credentials);
}

std::optional<std::string> PathSetup::label() const
{
    const PathLink* link = links ? links->chosen() : nullptr;
    return link ? std::optional(link->label()) : std::nullopt;
}

std::string PathSetup::statistics() const
{
    return proxy->statistics();
}

void PathSetup::finish(Result<std::string, NetError> result)
{
    if (!completion) return;
    deadline.cancel();
    if (!result) release();
    std::exchange(completion, {})(std::move(result));
}

// Nobody is to go on knocking at the peer's door, or to hold a relay, for a session that there is not.
void PathSetup::release()
{
    lifetime.end();
    backupTimer.cancel();
    punchTimer.cancel();
    relays.clear();
    links.reset();
    puncher.reset();
    binder.reset();
    pipe = {};
    proxy->network().close();
    proxy->local().close();
}

void PathSetup::breakRelay()
{
    const PathLink* link = links->chosen();
    isBreakDue = !link || !link->way().turn;
    if (isBreakDue) return;
    log.warning("test: dropping everything sent through {}", link->label());
    proxy->blockedTurn = link->way().turn;
}

} // namespace pelorin
