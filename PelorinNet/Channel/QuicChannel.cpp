#include "PelorinNet/Channel/QuicChannel.h"

#include "PelorinNet/Channel/CallOut.h"

#include <algorithm>

namespace pelorin {

QuicChannel::QuicChannel(std::shared_ptr<QuicLink> newLink, std::shared_ptr<QuicStream> newStream,
    const SocketAddress& newRemote, std::optional<Bytes> newPeer)
    : link(std::move(newLink)),
      stream(std::move(newStream)),
      remote(newRemote),
      peer(std::move(newPeer))
{
}

QuicChannel::~QuicChannel()
{
    if (!isReleased) tell([](QuicLink& home, const auto& ours) { home.abandon(ours); });
}

void QuicChannel::start(QueueRef newQueue)
{
    require(!queue, "a channel is started once");
    queue = std::move(newQueue);
    queue->assertCurrent();
    isOpen = true;
    tell([attached = QuicStream::Attached{this, queue, lifetime.watch()}](
             QuicLink& home, const auto& ours) { home.attach(ours, attached); });
}

void QuicChannel::send(std::vector<Bytes> parts, Task onSent)
{
    require(queue != nullptr, "a channel sends only after its start");
    queue->assertCurrent();
    if (!isOpen) return;
    for (const auto& part : parts) total += part.size();
    if (onSent) pending.push_back({total, std::move(onSent)});
    tell([parts = std::move(parts)](
             QuicLink& home, const auto& ours) mutable { home.send(ours, std::move(parts)); });
}

void QuicChannel::finish()
{
    if (std::exchange(isReleased, true)) return;
    isOpen = false;
    const auto dropped = std::exchange(pending, {}); // kept to the end: a task may own us
    tell([](QuicLink& home, const auto& ours) { home.finish(ours); });
}

void QuicChannel::received(ByteView bytes)
{
    constexpr std::size_t largestPiece = 65'536; // as a socket gives them
    const auto alive = lifetime.watch();
    while (alive && isOpen && !bytes.empty()) {
        const ByteView piece = bytes.first(std::min(bytes.size(), largestPiece));
        bytes = bytes.subspan(piece.size());
        callOut(onBytes, alive, piece);
    }
}

void QuicChannel::sent(std::uint64_t upTo)
{
    taken = upTo;
    const auto alive = lifetime.watch();
    while (alive && isOpen && !pending.empty() && pending.front().end <= taken) {
        Task due = std::move(pending.front().onSent);
        pending.pop_front();
        due();
    }
}

// What was sent before we knew that the peer is done still goes out.
void QuicChannel::closed(QuicEnd end)
{
    if (!isOpen) return;
    isOpen = false;
    handshakeFailed = end.isFailedHandshake;
    const auto dropped = std::exchange(pending, {}); // kept to the end: a task may own us
    isReleased = true;
    tell([](QuicLink& home, const auto& ours) { home.finish(ours); });
    if (onClosed) std::exchange(onClosed, nullptr)(std::move(end.error));
}

void QuicChannel::tell(std::move_only_function<void(QuicLink&, const std::shared_ptr<QuicStream>&)> work)
{
    link->queue()->post(
        [link = link, stream = stream, work = std::move(work)]() mutable { work(*link, stream); });
}

} // namespace pelorin
