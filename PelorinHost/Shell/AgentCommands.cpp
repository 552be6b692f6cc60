#include "PelorinHost/Shell/AgentCommands.h"

#include "PelorinCore/Label.h"
#include "PelorinHost/Agents/ClaudeRecords.h"

#include <array>
#include <fmt/format.h>
#include <istream>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

std::string readableDuration(DeckDate::duration duration)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
    if (seconds < 60) return fmt::format("{} s", std::max<std::int64_t>(seconds, 0));
    if (seconds < 3600) return fmt::format("{} min", seconds / 60);
    if (seconds < 48 * 3600) return fmt::format("{} h", seconds / 3600);
    return fmt::format("{} days", seconds / (24 * 3600));
}

std::string readableTask(const AgentTask& task, DeckDate now)
{
    return fmt::format("{:<8} {:<7} {:<9} {}: {}{}\n", nameOf(task.phase), nameOf(task.agent),
        readableDuration(now - task.since), asLabel(task.project), asLabel(task.title),
        task.detail ? " · " + asLabel(*task.detail) : "");
}

std::string readableWindow(const char* name, const std::optional<UsageWindow>& window, DeckDate now)
{
    if (!window) return {};
    return fmt::format(" · {} {:.0f} %{}", name, window->percent,
        window->resetsAt ? ", anew in " + readableDuration(*window->resetsAt - now) : "");
}

std::string readableUsage(AgentKind agent, const std::optional<AgentUsage>& usage, DeckDate now)
{
    if (!usage) return {};
    return fmt::format("used of {}{}{}\n", nameOf(agent), readableWindow("session", usage->session, now),
        readableWindow("week", usage->weekly, now));
}

} // namespace

std::optional<std::string> AgentCommands::readableDeck(const std::string& json)
{
    const auto deck = AgentDeckState::decode(json);
    if (!deck) return std::nullopt;
    std::string text
        = fmt::format("{} waiting, {} running, {} idle\n", deck->waiting, deck->running, deck->idle);
    for (const auto& task : deck->tasks) text += readableTask(task, deck->updatedAt);
    return text + readableUsage(AgentKind::claude, deck->claude, deck->updatedAt)
        + readableUsage(AgentKind::codex, deck->codex, deck->updatedAt);
}

std::optional<std::string> AgentCommands::eventRequest(std::istream& input)
{
    // In pieces, as nearly every report is far smaller than it may be.
    std::string text;
    std::array<char, 65'536> piece;
    while (text.size() <= ClaudeReport::maxSize && input.read(piece.data(), piece.size()).gcount() > 0)
        text.append(piece.data(), static_cast<std::size_t>(input.gcount()));
    const auto report = ClaudeReport::parse(text);
    if (!report) return std::nullopt;
    return nlohmann::json{{"command", "agent-event"}, {"event", report->encode()}}.dump();
}

} // namespace pelorin
