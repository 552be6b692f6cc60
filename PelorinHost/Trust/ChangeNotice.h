#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <mutex>
#include <vector>

namespace pelorin {

// Tells whoever subscribed that something has changed, each on a queue of its own. Any thread.
class ChangeNotice {
public:
    // changed runs on queue after every post, until the subscription is cancelled there; it may cancel it.
    [[nodiscard]] Subscription subscribe(QueueRef queue, std::function<void()> changed);
    void post();

private:
    class Subscriber;

    std::mutex lock; // guards subscribers
    std::vector<std::weak_ptr<Subscriber>> subscribers;
};

} // namespace pelorin
