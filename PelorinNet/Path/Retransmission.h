#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <array>

namespace pelorin {

// A request over UDP that is sent again while no answer comes: at once, after each delay but the last, and
// after the last one it has timed out. Destroyed with the answer, it is silent. On the queue given; owned by
// what waits.
class Retransmission {
public:
    using Delays = std::array<std::chrono::milliseconds, 4>;

    // onTimeout may destroy it, send may not.
    Retransmission(
        QueueRef newQueue, const Delays& newDelays, std::function<void()> newSend, Task newOnTimeout);

private:
    void advance();

    const QueueRef queue;
    const Delays delays;
    const std::function<void()> send;
    Task onTimeout;
    std::size_t sent = 0;
    Subscription timer;
};

} // namespace pelorin
