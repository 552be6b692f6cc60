#pragma once

#include "PelorinCore/AgentDeck/AgentDeckState.h"
#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// What one kind of agent does and has used up, just now.
struct AgentActivity {
    std::vector<AgentTask> tasks; // in no order
    std::optional<AgentUsage> usage;
};

// Watches the local sessions of one kind of coding agent through files that it leaves readable. Never writes
// any, and never reads credentials. Queue: its owner's, where each call does a bounded amount of work.
class AgentMonitor {
public:
    virtual ~AgentMonitor() = default;

    std::function<void()> onChange; // activity may be another now; may destroy us
    virtual AgentActivity activity() = 0;
};

} // namespace pelorin
