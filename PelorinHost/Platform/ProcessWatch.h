#pragma once

#include "PelorinNet/OwnedDescriptor.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <cstdint>
#include <optional>

namespace pelorin {

// When a process began, which tells it from a later one with the same number.
struct ProcessStart {
    std::uint64_t ticks = 0; // since the machine's start, as the system counts them
    WallTime date;
};

std::optional<ProcessStart> processStart(int pid); // nothing when there is none, or it has ended

// Tells the end of a process that need not be a child of ours. Queue: the one given.
class ProcessWatch {
public:
    ProcessWatch(const QueueRef& queue, int pid);

    std::function<void()> onEnd; // may destroy us; never where the system does not tell

private:
    OwnedDescriptor process;
    Subscription ended;
};

} // namespace pelorin
