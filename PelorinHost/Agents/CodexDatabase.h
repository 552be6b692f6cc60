#pragma once

#include "PelorinCore/AgentDeck/AgentDeckState.h"
#include "PelorinCore/Result.h"

#include <filesystem>

namespace pelorin {

// The threads that Codex keeps a list of.
namespace CodexDatabase {

struct Thread {
    std::string id;
    std::string title; // one line
    std::string cwd;
    std::filesystem::path rollout;
    std::optional<DeckDate> updatedAt;
    bool isArchived = false;
    bool operator==(const Thread&) const = default;
};

constexpr std::size_t mostThreads = 64; // the latest

// The newest of the folder's databases; nothing when there is none.
std::optional<std::filesystem::path> find(const std::filesystem::path& folder);

// Never writes, waits or makes a file, so that Codex does not notice. The error, for the log: it is locked,
// no database, or of a form that has no threads with an id. Takes milliseconds, and gives up on what takes
// longer.
Result<std::vector<Thread>, std::string> threads(const std::filesystem::path& database);

} // namespace CodexDatabase

} // namespace pelorin
