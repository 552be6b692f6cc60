#pragma once

#include "PelorinNet/Channel/QuicSendBuffer.h"
#include "PelorinNet/NetError.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <optional>

namespace pelorin {

class QuicChannel;

// How a stream or a connection ended.
struct QuicEnd {
    std::optional<NetError> error; // none: the peer closed in order
    bool isFailedHandshake = false;
};

// One stream of a connection. What its channel does arrives here as tasks, and what happens here goes to the
// channel's queue as tasks, for the two may be on different queues. Queue: the connection's. Owned by the
// link while it is open, and by the channel, which only hands it back.
struct QuicStream {
    static constexpr std::int64_t notOpened = -1;

    std::int64_t id = notOpened;
    bool isAnnounced = false; // the peer is told of it, even if nothing is sent
    QuicSendBuffer output;
    bool isFinishing = false; // our end follows the output
    bool isEndSent = false;
    bool isShut = false; // nothing is sent any more, whatever waits
    bool isBlocked = false; // the peer's window is full; asked anew at each turn of writing
    bool isOver = false; // nobody waits for anything on it, whatever the library still keeps of it
    Bytes input; // not yet handed to the channel
    std::uint64_t uncredited = 0; // bytes of the peer's that its window does not have back yet
    bool ignoresInput = false; // nobody is there to read it
    std::optional<QuicEnd> end; // of the input; reported behind it

    // The channel, from its start until it wants nothing more.
    struct Attached {
        QuicChannel* channel;
        QueueRef queue;
        Lifetime::Watch alive;
    };
    std::optional<Attached> attached;
    std::uint64_t reportedSent = 0;
    bool owesReport = false; // a send is to be told how far we are, even if that is no further
    Subscription finishDeadline;
};

} // namespace pelorin
