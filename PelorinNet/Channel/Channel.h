#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/NetError.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <optional>

namespace pelorin {

// One connection as a stream of bytes both ways, whatever carries it. Lives on the queue given to start; its
// callbacks arrive there and may destroy it. Owned by the session at its end.
class Channel {
public:
    virtual ~Channel() = default; // closes at once; no callback afterwards

    std::function<void(ByteView)> onBytes; // the next bytes of the stream, valid during the call
    std::function<void(std::optional<NetError>)> onClosed; // at most once; no error: the peer closed in order

    // Begins to read. Everything from here on, destruction included, happens on queue.
    virtual void start(QueueRef queue) = 0;

    // Appends the parts, one after another, to the stream with one gathered write where possible. onSent runs
    // when the transport has taken the last byte and is ready for more, so that the count of sends without it
    // bounds what waits in the kernel; never when the channel closes first.
    virtual void send(std::vector<Bytes> parts, Task onSent = {}) = 0;
    void send(Bytes bytes, Task onSent = {});
    virtual std::size_t unsentBytes() const = 0; // handed to send, not yet taken by the transport

    // Closes after all that was sent has gone out, at the latest after a second; callbacks stop at once.
    // The channel object may be destroyed right after.
    virtual void finish() = 0;

    virtual std::string remoteAddress() const = 0; // without port, "127.0.0.1"
    virtual std::string pathDescription() const = 0; // for people, "tcp 127.0.0.1:7420"

    // What the peer proved to be while a secure channel was set up: the identity of its pre-shared key. Empty
    // before that and on a channel that proves nothing.
    virtual std::string peerIdentity() const { return {}; }
    virtual bool hasFailedHandshake() const { return false; } // known when onClosed arrives
    virtual const Channel& carrier() const { return *this; } // of one that only describes another: that one
};

} // namespace pelorin
