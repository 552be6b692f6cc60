#include "PelorinHost/Agents/ClaudeRecords.h"

#include "PelorinCore/Label.h"
#include "PelorinHost/Agents/LooseJSON.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr std::size_t maxIDBytes = 64;
constexpr int maxPid = 1 << 22;
constexpr double mostPercent = 10'000; // more is no share of anything

bool isLetterOrDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string lastPart(const std::string& path)
{
    return asLabel(std::filesystem::path(path).filename().string());
}

std::optional<UsageWindow> window(const json& limits, const char* key)
{
    const json& limit = LooseJSON::member(limits, key);
    const auto percent = LooseJSON::number(limit, "used_percentage");
    if (!percent || *percent < 0 || *percent > mostPercent) return std::nullopt;
    return UsageWindow{*percent, LooseJSON::date(limit, "resets_at", 1s)};
}

void addWindow(json& limits, const char* key, const std::optional<UsageWindow>& window)
{
    if (!window) return;
    limits[key]["used_percentage"] = window->percent;
    if (window->resetsAt)
        limits[key]["resets_at"]
            = std::chrono::duration<double>(window->resetsAt->time_since_epoch()).count();
}

// What a user typed; other records of this type carry results of tools, or what the program itself adds.
std::string promptIn(const json& record)
{
    if (LooseJSON::isTrue(record, "isMeta") || LooseJSON::isTrue(record, "isSidechain")) return {};
    const json& message = LooseJSON::member(record, "message");
    const json& content = LooseJSON::member(message, "content");
    std::string text = LooseJSON::text(message, "content");
    if (content.is_array() && !content.empty() && LooseJSON::text(content.front(), "type") == "text")
        text = LooseJSON::text(content.front(), "text");
    return text.starts_with('<') ? std::string() : text;
}

std::optional<ClaudeTitle> titled(ClaudeTitle::Rank rank, const std::string& text)
{
    const auto begin = text.find_first_not_of(" \t\r\n");
    if (begin == text.npos) return std::nullopt;
    return ClaudeTitle{rank, asLabel(std::string_view(text).substr(begin))};
}

std::string firstOf(const json& record, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
        if (auto text = LooseJSON::text(record, key); !text.empty()) return text;
    return {};
}

} // namespace

bool isSessionID(std::string_view text)
{
    return !text.empty() && text.size() <= maxIDBytes
        && std::ranges::all_of(text, [](char c) { return isLetterOrDigit(c) || c == '-' || c == '_'; });
}

std::optional<ClaudeSession> ClaudeSession::parse(std::string_view text)
{
    if (text.size() > maxSize) return std::nullopt;
    const json object = LooseJSON::object(text);
    ClaudeSession session;
    session.pid = LooseJSON::integer(object, "pid").value_or(0);
    session.sessionID = LooseJSON::text(object, "sessionId");
    if (session.pid <= 0 || session.pid > maxPid || !isSessionID(session.sessionID)) return std::nullopt;
    session.cwd = LooseJSON::text(object, "cwd");
    session.startedAt = LooseJSON::date(object, "startedAt", 1ms);
    session.statusSince = LooseJSON::date(object, "statusUpdatedAt", 1ms);
    if (!session.statusSince) session.statusSince = LooseJSON::date(object, "updatedAt", 1ms);
    session.processStart = LooseJSON::text(object, "procStart");
    if (const json& ticks = LooseJSON::member(object, "procStart"); ticks.is_number_unsigned())
        session.processStart = std::to_string(ticks.get<std::uint64_t>());
    session.kind = LooseJSON::text(object, "kind");
    session.entrypoint = LooseJSON::text(object, "entrypoint");
    session.name = asLabel(LooseJSON::text(object, "name"));
    session.status = LooseJSON::text(object, "status");
    session.waitingFor = asLabel(LooseJSON::text(object, "waitingFor"));
    return session;
}

bool ClaudeSession::isForPeople() const
{
    return !kind.starts_with("daemon") && !entrypoint.starts_with("sdk-");
}

std::optional<ClaudeReport> ClaudeReport::parse(std::string_view text)
{
    if (text.size() > maxSize) return std::nullopt;
    const json object = LooseJSON::object(text);
    ClaudeReport report;
    report.sessionID = LooseJSON::text(object, "session_id");
    if (!isSessionID(report.sessionID)) return std::nullopt;
    report.project = lastPart(LooseJSON::text(object, "cwd"));
    report.event = asLabel(LooseJSON::text(object, "hook_event_name"));
    report.notification = asLabel(LooseJSON::text(object, "notification_type"));
    report.tool = asLabel(LooseJSON::text(object, "tool_name"));
    report.isAboutPermission = report.notification.empty()
        && LooseJSON::text(object, "message").find("permission") != std::string::npos;
    const json& limits = LooseJSON::member(object, "rate_limits");
    report.usage = {window(limits, "five_hour"), window(limits, "seven_day")};
    if (report.event.empty() && report.usage == AgentUsage{}) return std::nullopt;
    return report;
}

std::string ClaudeReport::encode() const
{
    json object{{"session_id", sessionID}, {"cwd", project}};
    if (!event.empty()) object["hook_event_name"] = event;
    if (!notification.empty()) object["notification_type"] = notification;
    if (!tool.empty()) object["tool_name"] = tool;
    if (isAboutPermission) object["message"] = "permission";
    json limits;
    addWindow(limits, "five_hour", usage.session);
    addWindow(limits, "seven_day", usage.weekly);
    if (!limits.is_null()) object["rate_limits"] = std::move(limits);
    return object.dump();
}

std::optional<ClaudeTitle> ClaudeTitle::parse(std::string_view line)
{
    // Most lines say nothing about it, and parsing is what costs.
    const auto names = {"-title\"", "\"summary\"", "\"user\""};
    if (std::ranges::none_of(names, [&](const char* name) { return line.find(name) != line.npos; }))
        return std::nullopt;
    const json record = LooseJSON::object(line);
    const std::string type = LooseJSON::text(record, "type");
    if (type == "custom-title") return titled(Rank::chosen, firstOf(record, {"customTitle", "title"}));
    if (type == "ai-title") return titled(Rank::generated, firstOf(record, {"aiTitle", "title"}));
    if (type == "summary") return titled(Rank::summary, LooseJSON::text(record, "summary"));
    if (type == "user") return titled(Rank::firstPrompt, promptIn(record));
    return std::nullopt;
}

} // namespace pelorin
