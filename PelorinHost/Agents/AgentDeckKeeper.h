#pragma once

#include "PelorinHost/Agents/ClaudeMonitor.h"
#include "PelorinHost/Agents/CodexMonitor.h"

namespace pelorin {

// Where the agents keep their files; empty: not watched.
struct AgentPlaces {
    std::filesystem::path claude = {};
    std::filesystem::path codex = {};
    std::filesystem::path codexDatabase = {}; // the folder of its thread database

    static AgentPlaces
    ofThisUser(); // as the agents themselves find them, by their variables or under the home
    bool operator==(const AgentPlaces&) const = default;
};

// The deck: what every coding agent on this machine does, put together from their monitors. Queue: the one
// given. Owns the monitors. Owned by the HostController.
class AgentDeckKeeper {
public:
    AgentDeckKeeper(const AgentPlaces& places, QueueRef newQueue);

    std::function<void()> onChange; // state may be another now
    AgentDeckState state();
    // What Claude Code told a hook of the user's. False when it is nothing of the kind.
    bool noteClaude(std::string_view report);

    // Those that need the user come first, then those at work, the latest change first in each. What exceeds
    // a deck is left out of its list and still counted.
    static AgentDeckState assemble(AgentActivity claude, AgentActivity codex, DeckDate now);

private:
    void tellChange();

    const QueueRef queue;
    std::unique_ptr<ClaudeMonitor> claude; // either: none where it is not watched
    std::unique_ptr<CodexMonitor> codex;
};

} // namespace pelorin
