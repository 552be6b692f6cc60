#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelorin {

// What the coding agents on this machine are doing, as a paired phone shows it. Both ends have the same
// values and the same JSON.

// As fine as the JSON carries it, so that what was encoded decodes to the same value.
using DeckDate = std::chrono::sys_time<std::chrono::microseconds>;

enum class AgentKind { claude, codex };

enum class AgentPhase {
    running, // at work
    waiting, // for the user: a permission, an answer
    idle, // its turn is over
};

const char* nameOf(AgentKind kind); // as in the JSON
const char* nameOf(AgentPhase phase);

struct AgentTask {
    std::string id; // the same as long as the task lives
    AgentKind agent = AgentKind::claude;
    std::string title;
    std::string project;
    AgentPhase phase = AgentPhase::idle;
    std::optional<std::string> detail; // a short line on what it does or waits for
    DeckDate since; // of the phase
    bool operator==(const AgentTask&) const = default;
};

// One window of a subscription's allowance.
struct UsageWindow {
    double percent = 0; // used; finite
    std::optional<DeckDate> resetsAt;
    bool operator==(const UsageWindow&) const = default;
};

struct AgentUsage {
    std::optional<UsageWindow> session;
    std::optional<UsageWindow> weekly;
    bool operator==(const AgentUsage&) const = default;
};

namespace AgentDeck {

inline constexpr const char* attributesTypeName = "AgentActivityAttributes";
inline constexpr std::size_t maxTasks = 6; // in one state

} // namespace AgentDeck

// How a date is written as a number. The first is what Foundation's coders do unless told otherwise.
enum class DateCoding { secondsSince2001, secondsSince1970 };

// The content state of the phone's Live Activity.
struct AgentDeckState {
    std::vector<AgentTask> tasks; // at most AgentDeck::maxTasks
    int running = 0; // tasks in this phase
    int waiting = 0;
    int idle = 0;
    std::optional<AgentUsage> claude;
    std::optional<AgentUsage> codex;
    DeckDate updatedAt; // when this was computed
    bool operator==(const AgentDeckState&) const = default;

    // Keys are the field names; what is absent is left out. indent: spaces a level, or -1 for one line. Dates
    // must lie within 3000 years of today.
    std::string encode(DateCoding dates = DateCoding::secondsSince2001, int indent = -1) const;
    // Unknown keys are ignored, and null is absent. Nothing when the text is longer than maxSize or no such
    // state: a required key is missing, or a known one holds another type or a name that we don't know.
    static std::optional<AgentDeckState> decode(
        std::string_view json, DateCoding dates = DateCoding::secondsSince2001);
    static constexpr std::size_t maxSize = 1 << 16; // a push carries 4 KiB
};

} // namespace pelorin

template <>
struct std::hash<pelorin::AgentTask> {
    std::size_t operator()(const pelorin::AgentTask& task) const;
};
template <>
struct std::hash<pelorin::UsageWindow> {
    std::size_t operator()(const pelorin::UsageWindow& window) const;
};
template <>
struct std::hash<pelorin::AgentUsage> {
    std::size_t operator()(const pelorin::AgentUsage& usage) const;
};
template <>
struct std::hash<pelorin::AgentDeckState> {
    std::size_t operator()(const pelorin::AgentDeckState& state) const;
};
