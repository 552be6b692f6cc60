#include "PelorinHost/Agents/CodexRecords.h"

#include "PelorinCore/Label.h"
#include "PelorinHost/Agents/LooseJSON.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr double mostPercent = 10'000; // more is no share of anything
constexpr int sessionMinutes = 24 * 60; // a window up to this long is the session's, a longer one the week's
constexpr std::array knownTypes{"session_meta", "response_item", "event_msg", "turn_context", "compacted"};

struct TypeRule {
    const char* type;
    AgentPhase phase;
    bool isTurnMark;
};
constexpr TypeRule eventRules[] = {
    {"task_started", AgentPhase::running, true},
    {"turn_started", AgentPhase::running, true},
    {"task_complete", AgentPhase::idle, true},
    {"turn_complete", AgentPhase::idle, true},
    {"turn_aborted", AgentPhase::idle, true},
    {"user_message", AgentPhase::running, false},
    // Not written by the versions that we know, yet plain if they are.
    {"exec_approval_request", AgentPhase::waiting, true},
    {"apply_patch_approval_request", AgentPhase::waiting, true},
    {"request_user_input", AgentPhase::waiting, true},
    {"elicitation_request", AgentPhase::waiting, true},
};

std::optional<UsageWindow> window(const json& limit, DeckDate when)
{
    const auto percent = LooseJSON::number(limit, "used_percent");
    if (!percent || *percent < 0 || *percent > mostPercent) return std::nullopt;
    UsageWindow window{*percent, LooseJSON::date(limit, "resets_at", 1s)};
    const auto left = LooseJSON::integer(limit, "resets_in_seconds"); // of older versions
    if (!window.resetsAt && left) window.resetsAt = when + std::chrono::seconds(*left);
    return window;
}

// Which of the two is which is said by their lengths; their order is not promised.
std::optional<AgentUsage> usageIn(const json& limits, DeckDate when)
{
    AgentUsage usage;
    for (const char* key : {"primary", "secondary"}) {
        const json& limit = LooseJSON::member(limits, key);
        const int usual = std::string_view(key) == "primary" ? 300 : 10080;
        const int minutes = LooseJSON::integer(limit, "window_minutes").value_or(usual);
        auto& place = minutes <= sessionMinutes ? usage.session : usage.weekly;
        if (const auto found = window(limit, when)) place = found;
    }
    return usage == AgentUsage{} ? std::nullopt : std::optional(usage);
}

void readMeta(const json& payload, CodexRecord& record)
{
    record.threadID = asLabel(LooseJSON::text(payload, "id"));
    record.cwd = LooseJSON::text(payload, "cwd");
    record.isOfSubagent = LooseJSON::member(payload, "source").contains("subagent");
}

void readEvent(const json& payload, CodexRecord& record)
{
    const std::string type = LooseJSON::text(payload, "type");
    if (type == "token_count")
        record.usage = usageIn(LooseJSON::member(payload, "rate_limits"), record.when.value_or(DeckDate()));
    if (type == "user_message") record.prompt = LooseJSON::text(payload, "message");
    const auto rule = std::ranges::find(eventRules, type, &TypeRule::type);
    if (rule == std::end(eventRules)) return;
    record.phase = rule->phase;
    record.isTurnMark = rule->isTurnMark;
}

void readItem(const json& payload, CodexRecord& record)
{
    const std::string type = LooseJSON::text(payload, "type");
    if (type == "message") {
        const std::string role = LooseJSON::text(payload, "role");
        if (role == "assistant") record.phase = AgentPhase::idle; // its last word, unless it goes on
    } else if (type == "reasoning" || type.ends_with("_call")) {
        record.phase = AgentPhase::running;
        record.tool = asLabel(LooseJSON::text(payload, "name"));
    }
}

} // namespace

std::optional<CodexRecord> CodexRecord::parse(std::string_view line)
{
    const json object = LooseJSON::object(line);
    CodexRecord record;
    record.type = asLabel(LooseJSON::text(object, "type"));
    if (record.type.empty()) return std::nullopt;
    record.when = LooseJSON::isoDate(object, "timestamp");
    const json& payload = LooseJSON::member(object, "payload");
    if (record.type == "session_meta") readMeta(payload, record);
    if (record.type == "turn_context") record.cwd = LooseJSON::text(payload, "cwd");
    if (record.type == "event_msg") readEvent(payload, record);
    if (record.type == "response_item") readItem(payload, record);
    return record;
}

bool CodexRecord::isKnownType() const
{
    return std::ranges::find(knownTypes, type) != knownTypes.end();
}

void CodexThread::apply(const CodexRecord& record)
{
    // A thread that goes on from another has that one's first line, too, behind its own.
    if (record.type == "session_meta" && id.empty()) {
        id = record.threadID;
        isOfSubagent = record.isOfSubagent;
    }
    if (!record.cwd.empty()) cwd = record.cwd;
    if (prompt.empty()) prompt = asLabel(record.prompt);
    if (record.when) heard = record.when;
    if (!record.tool.empty()) tool = record.tool;
    if (!record.phase || (hasTurnMarks && !record.isTurnMark)) return;
    hasTurnMarks = record.isTurnMark || hasTurnMarks;
    if (*record.phase != phase || !since) since = record.when;
    phase = *record.phase;
    if (phase == AgentPhase::idle) tool.clear();
}

} // namespace pelorin
