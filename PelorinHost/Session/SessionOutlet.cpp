#include "PelorinHost/Session/SessionOutlet.h"

#include "PelorinCore/Wire/FrameCodec.h"

#include <numeric>
#include <utility>

namespace pelorin {
namespace {

// Control messages are small and rare: a phone that leaves this much of them unread reads nothing at all.
constexpr std::size_t maxUnsentControlBytes = 1 << 20;

// Of video two frames wait as a rule, but keyframes always go, and there are ways to have them made. So much
// of it waits only for a phone that takes none at all.
constexpr std::size_t maxUnsentVideoBytes = 16 << 20;

std::size_t sizeOf(const std::vector<Bytes>& parts)
{
    return std::accumulate(parts.begin(), parts.end(), std::size_t{0},
        [](std::size_t sum, const Bytes& part) { return sum + part.size(); });
}

} // namespace

SessionOutlet::SessionOutlet(Channel& newChannel, QueueRef newQueue)
    : channel(newChannel),
      queue(std::move(newQueue))
{
}

void SessionOutlet::send(const Message& message)
{
    write(message, {});
}

void SessionOutlet::sendVideo(std::vector<Bytes> parts, Task onSent)
{
    if (isClogged) return;
    const std::size_t size = sizeOf(parts);
    videoBytesInFlight += size;
    channel.send(
        std::move(parts), [this, alive = lifetime.watch(), size, onSent = std::move(onSent)]() mutable {
            if (!alive) return;
            videoBytesInFlight -= size;
            onSent();
        });
    checkUnsentBytes();
}

void SessionOutlet::sendLatest(message::CursorPosition position)
{
    waitingPosition = position;
    if (!isLatestInFlight) sendWaiting();
}

void SessionOutlet::sendLatest(message::CursorImage image)
{
    waitingImage = std::move(image);
    if (!isLatestInFlight) sendWaiting();
}

void SessionOutlet::sendLatest(message::Clipboard clipboard)
{
    waitingClipboard = std::move(clipboard);
    if (!isLatestInFlight) sendWaiting();
}

void SessionOutlet::sendWaiting()
{
    std::optional<Message> next;
    // A new shape goes ahead of the position it was seen at.
    if (waitingImage)
        next = *std::exchange(waitingImage, std::nullopt);
    else if (waitingPosition)
        next = *std::exchange(waitingPosition, std::nullopt);
    else if (waitingClipboard)
        next = *std::exchange(waitingClipboard, std::nullopt);
    isLatestInFlight = next.has_value();
    if (!next) return;
    write(*next, [this, alive = lifetime.watch()] {
        if (alive) sendWaiting();
    });
}

void SessionOutlet::write(const Message& message, Task onSent)
{
    if (isClogged) return;
    std::vector<Bytes> parts;
    parts.push_back(encodeFrame(message));
    channel.send(std::move(parts), std::move(onSent));
    checkUnsentBytes();
}

void SessionOutlet::checkUnsentBytes()
{
    const std::size_t unsent = channel.unsentBytes();
    const bool isVideoTaken = videoBytesInFlight <= maxUnsentVideoBytes;
    const bool isControlTaken = unsent <= videoBytesInFlight + maxUnsentControlBytes;
    if (isVideoTaken && isControlTaken) return;
    isClogged = true;
    // Posted, since whoever is sending would not survive the end of the session.
    queue->post([this, alive = lifetime.watch(), unsent] {
        if (!alive) return;
        const auto report = std::move(onClogged); // outlives us, should the report be our end
        report(unsent);
    });
}

} // namespace pelorin
