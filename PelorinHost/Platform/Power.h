#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <memory>
#include <string>

namespace pelorin {

// Keeps something from happening while it lives, which is on the queue that it was made for. A process that
// dies lets go of it as well.
class PowerAssertion {
public:
    virtual ~PowerAssertion() = default;
};

class Power {
public:
    virtual ~Power() = default;

    // Tells the system that a user is at work, which wakes a sleeping display.
    virtual void declareUserActivity(const std::string& name) = 0;
    // Keeps the display from sleeping, and the machine with it, for want of input. queue: the caller's.
    // Nothing when the platform refuses, which is logged.
    virtual std::unique_ptr<PowerAssertion> preventDisplaySleep(const std::string& name, QueueRef queue) = 0;
};

} // namespace pelorin
