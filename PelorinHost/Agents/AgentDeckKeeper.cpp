#include "PelorinHost/Agents/AgentDeckKeeper.h"

#include "PelorinNet/Files/UserDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace pelorin {
namespace {

// Codex leaves nothing that tells whether a thread is still open: one that says nothing for so long is done
// with.
constexpr std::chrono::hours codexSilence{2};

int urgency(AgentPhase phase)
{
    switch (phase) {
    case AgentPhase::waiting:
        return 0;
    case AgentPhase::running:
        return 1;
    case AgentPhase::idle:
        break;
    }
    return 2;
}

bool isBefore(const AgentTask& one, const AgentTask& other)
{
    if (one.phase != other.phase) return urgency(one.phase) < urgency(other.phase);
    if (one.since != other.since) return one.since > other.since;
    return one.id < other.id;
}

int count(const std::vector<AgentTask>& tasks, AgentPhase phase)
{
    return static_cast<int>(std::ranges::count(tasks, phase, &AgentTask::phase));
}

} // namespace

AgentPlaces AgentPlaces::ofThisUser()
{
    AgentPlaces places{
        userDirectory("CLAUDE_CONFIG_DIR", ".claude"), userDirectory("CODEX_HOME", ".codex"), {}};
    const char* database = std::getenv("CODEX_SQLITE_HOME");
    places.codexDatabase = database && *database == '/' ? std::filesystem::path(database) : places.codex;
    return places;
}

AgentDeckKeeper::AgentDeckKeeper(const AgentPlaces& places, QueueRef newQueue) : queue(std::move(newQueue))
{
    queue->assertCurrent();
    if (!places.claude.empty()) {
        claude = std::make_unique<ClaudeMonitor>(places.claude, queue);
        claude->onChange = [this] { tellChange(); };
    }
    if (!places.codex.empty()) {
        codex = std::make_unique<CodexMonitor>(places.codex, places.codexDatabase, codexSilence, queue);
        codex->onChange = [this] { tellChange(); };
    }
}

AgentDeckState AgentDeckKeeper::state()
{
    queue->assertCurrent();
    return assemble(claude ? claude->activity() : AgentActivity{},
        codex ? codex->activity() : AgentActivity{},
        std::chrono::floor<std::chrono::microseconds>(queue->wallNow()));
}

bool AgentDeckKeeper::noteClaude(std::string_view text)
{
    queue->assertCurrent();
    const auto report = ClaudeReport::parse(text);
    if (report && claude) claude->note(*report);
    return report.has_value();
}

AgentDeckState AgentDeckKeeper::assemble(AgentActivity claude, AgentActivity codex, DeckDate now)
{
    auto tasks = std::move(claude.tasks);
    std::ranges::move(codex.tasks, std::back_inserter(tasks));
    std::ranges::sort(tasks, isBefore);
    AgentDeckState state{{}, count(tasks, AgentPhase::running), count(tasks, AgentPhase::waiting),
        count(tasks, AgentPhase::idle), claude.usage, codex.usage, now};
    tasks.resize(std::min(tasks.size(), AgentDeck::maxTasks));
    state.tasks = std::move(tasks);
    return state;
}

void AgentDeckKeeper::tellChange()
{
    const auto tell = onChange; // it may destroy us
    if (tell) tell();
}

} // namespace pelorin
