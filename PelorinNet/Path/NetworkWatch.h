#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Notices when this machine's own addresses or routes have changed, so that whoever talks to others need not
// wait for silence to find out. Queue: the one given. Owned by whoever wants to know.
class NetworkWatch {
public:
    explicit NetworkWatch(QueueRef newQueue);
    ~NetworkWatch();
    NetworkWatch(const NetworkWatch&) = delete;
    NetworkWatch& operator=(const NetworkWatch&) = delete;

    // Once it has been quiet for a quarter of a second. May destroy the watch. Never where the system does
    // not tell.
    std::function<void()> onChange;

private:
    void drain();

    const QueueRef queue;
    int fd = -1;
    Subscription readable;
    Subscription settling;
};

} // namespace pelorin
