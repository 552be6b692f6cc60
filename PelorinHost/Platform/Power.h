#pragma once

#include <memory>
#include <string>

namespace pelorin {

// Keeps something from happening while it lives.
class PowerAssertion {
public:
    virtual ~PowerAssertion() = default;
};

class Power {
public:
    virtual ~Power() = default;

    // Tells the system that a user is at work, which wakes a sleeping display.
    virtual void declareUserActivity(const std::string& name) = 0;
    // Keeps the display from sleeping for want of input. Nothing when the platform refuses, which is logged.
    virtual std::unique_ptr<PowerAssertion> preventDisplaySleep(const std::string& name) = 0;
};

} // namespace pelorin
