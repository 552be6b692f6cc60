#include "PelorinNet/Path/Relay.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t maxPeers = 16;

// Permissions last 300 s, channels and allocations 600 (RFC 8656, 3.2, 9, 12). Binding a channel anew renews
// its permission, and what failed is tried twice more before that lapses.
constexpr Duration renewalPeriod = 240s;
constexpr Duration shortestRenewal = 10s; // of a relay that grants less than it should
constexpr Duration rebindDelay = 15s;
constexpr int maxRebindings = 2; // a relay may not want that address at all

constexpr Duration firstRetry = 1s;
constexpr Duration lastRetry = 60s;

} // namespace

Relay::Relay(DatagramProxy& newProxy, QueueRef newQueue, PathServers::Lookup newLookup,
    PathServers::Server newServer, TurnCredentials newCredentials, std::string newCandidateType)
    : proxy(newProxy),
      queue(std::move(newQueue)),
      lookup(std::move(newLookup)),
      server(std::move(newServer)),
      credentials(std::move(newCredentials)),
      candidateType(std::move(newCandidateType))
{
}

Relay::~Relay()
{
    if (turn) proxy.remove(*turn);
}

void Relay::start()
{
    queue->assertCurrent();
    look();
}

void Relay::look()
{
    lookup(server, queue, [this, alive = lifetime.watch()](std::vector<SocketAddress> addresses) {
        if (alive) allocate(std::move(addresses));
    });
}

void Relay::allocate(std::vector<SocketAddress> addresses)
{
    if (addresses.empty()) return failed("its name has no address");
    auto socket = UDPSocket::open("0.0.0.0", 0, queue);
    if (!socket) return failed(socket.error().description);
    if (onServerKnown) onServerKnown(addresses);
    turn = std::make_unique<TurnClient>(std::move(*socket), std::move(addresses), credentials, queue);
    turn->onUnreachable = [this](int) {
        // While it looks for its server, an address without one is no news.
        if (turn->relayed() && onUnreachable) onUnreachable(*turn);
    };
    turn->allocate([this](const Result<SocketAddress, NetError>& relayed) {
        if (relayed) return allocated(*relayed);
        turn.reset();
        failed(relayed.error().description);
    });
}

void Relay::allocated(const SocketAddress& relayed)
{
    log.info("relay {}: allocated {}", server.host, relayed.text());
    failures = 0;
    isRefreshing = false;
    rebindings = 0;
    proxy.add(*turn);
    renewLater();
    for (const Peer& peer : peers) bind(peer);
    if (onAllocated) onAllocated({relayed, candidateType});
}

void Relay::reach(const SocketAddress& peer)
{
    queue->assertCurrent();
    if (std::ranges::find(peers, peer, &Peer::address) != peers.end()) return;
    if (nextChannel > ChannelData::channelRange.last || (peers.size() == maxPeers && !forgetOldest())) return;
    peers.push_back({peer, nextChannel++});
    rebindings = 0;
    if (turn && turn->relayed()) bind(peers.back());
}

// A peer that goes from network to network leaves addresses behind that lead nowhere.
bool Relay::forgetOldest()
{
    const auto oldest = std::ranges::find_if(peers, [this](const Peer& peer) {
        return !turn || !isNeeded || !isNeeded(DatagramProxy::Path::relayed(*turn, peer.channel));
    });
    if (oldest == peers.end()) return false;
    peers.erase(oldest);
    return true;
}

void Relay::bind(const Peer& peer)
{
    turn->channelBind(peer.address, peer.channel, [this, peer](const Result<void, NetError>& bound) {
        if (!bound) {
            log.info("relay {}: {} for {}", server.host, bound.error().description, peer.address.text());
            // One timer for all: those that are bound are only renewed.
            rebinding = queue->after(rebindDelay, [this] {
                if (turn && rebindings++ < maxRebindings)
                    for (const Peer& each : peers) bind(each);
            });
            return;
        }
        proxy.openChannel(*turn, peer.channel);
        if (onChannel) onChannel(*turn, peer.channel, peer.address);
    });
}

void Relay::renewLater()
{
    const Duration period = std::clamp<Duration>(turn->granted() / 2, shortestRenewal, renewalPeriod);
    timer = queue->after(period, [this] { renew(); });
}

void Relay::renew()
{
    renewLater();
    refresh();
    rebindings = 0;
    for (const Peer& peer : peers) bind(peer);
}

void Relay::setCredentials(TurnCredentials fresh)
{
    queue->assertCurrent();
    credentials = std::move(fresh);
}

void Relay::distrust()
{
    queue->assertCurrent();
    if (turn && turn->relayed()) refresh();
}

void Relay::refresh()
{
    if (std::exchange(isRefreshing, true)) return;
    turn->refresh([this, before = turn->granted()](const Result<void, NetError>& refreshed) {
        isRefreshing = false;
        if (!refreshed) return lose(refreshed.error().description);
        if (turn->granted() != before) renewLater();
    });
}

void Relay::lose(const std::string& why)
{
    log.info("relay {}: {}", server.host, why);
    proxy.remove(*turn);
    const auto alive = lifetime.watch();
    if (onLost) onLost(*turn);
    if (!alive) return;
    turn.reset();
    rebinding.cancel();
    // It was in order until now: most likely our own network has changed, and the path waits.
    timer = queue->after(Duration{}, [this] { look(); });
}

void Relay::failed(const std::string& why)
{
    const Duration delay = std::min(lastRetry, firstRetry * (1 << std::min(failures++, 6)));
    log.info("relay {}: {}; again in {} s", server.host, why,
        std::chrono::duration_cast<std::chrono::seconds>(delay).count());
    timer = queue->after(delay, [this] { look(); });
    rebinding.cancel();
    if (onFailed) onFailed();
}

} // namespace pelorin
