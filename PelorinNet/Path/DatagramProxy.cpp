#include "PelorinNet/Path/DatagramProxy.h"

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin {
namespace {

constexpr const char* loopback = "127.0.0.1";

} // namespace

Result<std::unique_ptr<DatagramProxy>, NetError> DatagramProxy::open(QueueRef queue)
{
    auto network = UDPSocket::open("0.0.0.0", 0, queue);
    if (!network) return std::unexpected(std::move(network).error());
    auto local = UDPSocket::open(loopback, 0, queue);
    if (!local) return std::unexpected(std::move(local).error());
    return std::unique_ptr<DatagramProxy>(
        new DatagramProxy(std::move(queue), std::move(*network), std::move(*local)));
}

DatagramProxy::DatagramProxy(
    QueueRef newQueue, std::unique_ptr<UDPSocket> newNetwork, std::unique_ptr<UDPSocket> newLocal)
    : queue(std::move(newQueue)),
      networkSocket(std::move(newNetwork)),
      localSocket(std::move(newLocal))
{
    networkSocket->onReceive
        = [this](ByteView datagram, const SocketAddress& source) { fromNetwork(datagram, source); };
    networkSocket->onBatchEnd = [this] { localSocket->flush(); };
    networkSocket->onUnreachable
        = [this](const SocketAddress& peer, int) { callOut(onUnreachable, lifetime.watch(), peer); };
    localSocket->onReceive
        = [this](ByteView datagram, const SocketAddress& source) { fromLocal(datagram, source); };
    localSocket->onBatchEnd = [this] { flushOutward(); };
}

DatagramProxy::~DatagramProxy()
{
    while (!turns.empty()) remove(*turns.back().turn);
}

void DatagramProxy::fromLocal(ByteView datagram, const SocketAddress& source)
{
    if (quicEndpoint && source != *quicEndpoint) {
        ++count.ignoredLocal;
        count.ignoredLocalPort = source.port;
        return;
    }
    quicEndpoint = source;
    if (datagram.size() > largestDatagram) return void(++count.droppedOversize);
    if (!path) return;
    if (path->turn && path->turn == blockedTurn) return void(++count.droppedBlocked);
    if (path->turn)
        path->turn->enqueue(path->channel, datagram);
    else
        networkSocket->enqueue({}, datagram, {}, path->address);
    ++count.sent;
    count.largestSent = std::max(count.largestSent, datagram.size());
    count.lastSent = queue->now();
}

// The path may have changed since the first datagram of the batch.
void DatagramProxy::flushOutward()
{
    networkSocket->flush();
    for (const Served& each : turns) each.turn->flush();
}

void DatagramProxy::fromNetwork(ByteView datagram, const SocketAddress& source)
{
    if (!StunMessage::looksLikeStun(datagram) && validatedPeers.contains(source))
        return deliver(datagram, Path::direct(source));
    callOut(onOtherDatagram, lifetime.watch(), datagram, source);
}

void DatagramProxy::fromRelay(TurnClient& turn, std::uint16_t channel, ByteView payload)
{
    const Served* const from = find(turn);
    if (!from || !from->channels.contains(channel)) return;
    const Path over = Path::relayed(turn, channel);
    if (!StunMessage::looksLikeStun(payload)) return deliver(payload, over);
    callOut(onRelayedStun, lifetime.watch(), payload, over);
}

void DatagramProxy::deliver(ByteView datagram, const Path& from)
{
    if (!quicEndpoint) return;
    ++count.received;
    count.lastReceived = queue->now();
    localSocket->enqueue({}, datagram, {}, *quicEndpoint);
    const auto former = std::exchange(lastArrival, from);
    if (former != from) callOut(onArrivalPathChange, lifetime.watch(), from);
}

void DatagramProxy::add(TurnClient& turn)
{
    queue->assertCurrent();
    if (find(turn)) return;
    turns.push_back({&turn, {}});
    turn.onChannelData
        = [this, &turn](std::uint16_t channel, ByteView payload) { fromRelay(turn, channel, payload); };
    turn.onBatchEnd = [this] { localSocket->flush(); };
}

void DatagramProxy::openChannel(TurnClient& turn, std::uint16_t channel)
{
    queue->assertCurrent();
    Served* const to = find(turn);
    if (to) to->channels.insert(channel);
}

void DatagramProxy::remove(TurnClient& turn)
{
    queue->assertCurrent();
    if (!find(turn)) return;
    turn.flush(); // what it holds is of this batch
    // Set rather than cleared: it may be one of these that calls us, and an empty one would be put back.
    turn.onChannelData = [](std::uint16_t, ByteView) {};
    turn.onBatchEnd = [] {};
    std::erase_if(turns, [&](const Served& each) { return each.turn == &turn; });
    if (path && path->turn == &turn) path.reset();
    if (blockedTurn == &turn) blockedTurn = nullptr;
    if (lastArrival && lastArrival->turn == &turn) lastArrival = Path{}; // from nowhere: the next is another
}

void DatagramProxy::send(ByteView datagram, const Path& over)
{
    queue->assertCurrent();
    if (!over.turn) return networkSocket->send(datagram, over.address);
    if (over.turn == blockedTurn) return void(++count.droppedBlocked);
    over.turn->send(over.channel, datagram);
}

std::string DatagramProxy::statistics() const
{
    std::string line = fmt::format("sent {}, received {}", count.sent, count.received);
    if (count.lastReceived) {
        const std::chrono::duration<double> ago = queue->now() - *count.lastReceived;
        line += fmt::format(", last received {:.1f} s ago", ago.count());
    }
    if (count.droppedOversize) line += fmt::format(", dropped {} oversize", count.droppedOversize);
    if (count.droppedBlocked) line += fmt::format(", dropped {} by the test switch", count.droppedBlocked);
    if (count.ignoredLocal)
        line += fmt::format(", ignored {} from local port {}", count.ignoredLocal, count.ignoredLocalPort);
    return line;
}

DatagramProxy::Served* DatagramProxy::find(const TurnClient& turn)
{
    const auto found = std::ranges::find(turns, &turn, &Served::turn);
    return found == turns.end() ? nullptr : &*found;
}

} // namespace pelorin
