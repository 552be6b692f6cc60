#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinNet/Channel/Channel.h"

#include <optional>

namespace pelorin {

// Everything that leaves for the phone: messages in order, video frames without a copy, cursor and clipboard
// only as their latest state. A phone that stops reading costs a bounded amount of memory. Queue: the
// session's. Owned by the HostSession, whose channel it writes to.
class SessionOutlet {
public:
    SessionOutlet(Channel& channel, QueueRef queue);

    // More than can be kept waits for the phone: the session must end. Posted, at most once.
    std::function<void(std::size_t unsentBytes)> onClogged;

    void send(const Message& message);
    // parts, in one gathered write, count as video until they have left, when onSent runs.
    void sendVideo(std::vector<Bytes> parts, Task onSent);
    // Sent when the one before it has left; a newer one takes its place meanwhile.
    void sendLatest(message::CursorPosition position);
    void sendLatest(message::CursorImage image);
    void sendLatest(message::Clipboard clipboard);

private:
    void write(const Message& message, Task onSent);
    void sendWaiting();
    void checkUnsentBytes();

    Channel& channel;
    QueueRef queue;
    bool isClogged = false;
    std::size_t videoBytesInFlight = 0;
    bool isLatestInFlight = false;
    std::optional<message::CursorPosition> waitingPosition;
    std::optional<message::CursorImage> waitingImage;
    std::optional<message::Clipboard> waitingClipboard;
    Lifetime lifetime;
};

} // namespace pelorin
