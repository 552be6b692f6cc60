#include "PelorinNet/Path/NatProbe.h"

#include <algorithm>
#include <utility>

namespace pelorin {

NatProbe::NatProbe(QueueRef newQueue, PathServers::Lookup newLookup)
    : queue(std::move(newQueue)),
      lookup(std::move(newLookup))
{
}

void NatProbe::ask(const std::vector<PathServers::Server>& servers, std::vector<std::string> own, Done done)
{
    queue->assertCurrent();
    ownAddresses = std::move(own);
    onDone = std::move(done);
    if (auto opened = UDPSocket::open("0.0.0.0", 0, queue)) socket = std::move(*opened);
    if (socket) {
        binder = std::make_unique<StunBinder>(queue);
        socket->onReceive = [this](ByteView datagram, const SocketAddress&) { binder->handle(datagram); };
        lookupsLeft = std::min(servers.size(), maxServers);
    }
    for (std::size_t i = 0, count = lookupsLeft; i < count; ++i)
        lookup(servers[i], queue, [this, alive = lifetime.watch()](const auto& addresses) {
            if (alive) lookedUp(addresses);
        });
    finishWhenComplete();
}

void NatProbe::lookedUp(const std::vector<SocketAddress>& addresses)
{
    --lookupsLeft;
    unknownNames += addresses.empty();
    for (const auto& server : addresses) {
        // Two ports of one machine tell as much as two machines about most NATs, the same port twice nothing.
        if (asked.size() == maxServers || std::ranges::find(asked, server) != asked.end()) continue;
        const std::size_t which = asked.size();
        asked.push_back(server);
        seen.emplace_back();
        ++answersLeft;
        binder->binding(*socket, server,
            [this, which](const Result<SocketAddress, NetError>& result) { answered(which, result); });
    }
    finishWhenComplete();
}

void NatProbe::answered(std::size_t which, const Result<SocketAddress, NetError>& result)
{
    --answersLeft;
    if (result) seen[which] = *result;
    finishWhenComplete();
}

// Posted, as this may be within a call of the binder or of our owner.
void NatProbe::finishWhenComplete()
{
    if (lookupsLeft > 0 || answersLeft > 0) return;
    queue->post([this, alive = lifetime.watch()] {
        if (!alive || !onDone) return;
        const auto first = std::ranges::find_if(seen, [](const auto& each) { return each.has_value(); });
        const auto tell = std::exchange(onDone, nullptr);
        const auto silent
            = static_cast<std::size_t>(std::ranges::count_if(seen, [](const auto& each) { return !each; }));
        tell({judge(), first == seen.end() ? std::nullopt : *first, silent + unknownNames});
    });
}

NatProbe::Kind NatProbe::judge() const
{
    std::vector<SocketAddress> known;
    for (const auto& each : seen)
        if (each) known.push_back(*each);
    if (known.empty()) return Kind::silent;
    const bool isOwn = std::ranges::find(ownAddresses, known[0].hostText()) != ownAddresses.end();
    if (isOwn && known[0].port == socket->localAddress().port) return Kind::none;
    if (known.size() == 1) return Kind::some;
    const bool areSame = std::ranges::all_of(known, [&](const auto& each) { return each == known[0]; });
    return areSame ? Kind::oneForAll : Kind::oneForEach;
}

} // namespace pelorin
