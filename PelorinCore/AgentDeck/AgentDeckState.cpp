#include "PelorinCore/AgentDeck/AgentDeckState.h"

#include "PelorinCore/Result.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr std::chrono::seconds from1970To2001{978'307'200};
constexpr double farthestSeconds = 1e11; // from either epoch; microseconds still fit a DeckDate by far
constexpr int maxDepth = 5; // a usage's window's member, the deepest that we read

// What a text is not: the way out of a decoding, never out of this file.
struct Malformed {};

void check(bool condition)
{
    if (!condition) throw Malformed{};
}

template <class Enum, std::size_t count>
Enum enumNamed(const std::string& name, const Enum (&values)[count])
{
    for (const Enum value : values)
        if (name == nameOf(value)) return value;
    throw Malformed{};
}

// ---- writing

class Encoder {
public:
    explicit Encoder(DateCoding coding) : epoch(epochOf(coding)) {}

    json of(const AgentDeckState& state) const
    {
        json tasks = json::array();
        for (const auto& task : state.tasks) tasks.push_back(of(task));
        json object{{"tasks", std::move(tasks)}, {"running", state.running}, {"waiting", state.waiting},
            {"idle", state.idle}, {"updatedAt", of(state.updatedAt)}};
        addIfPresent(object, "claude", state.claude);
        addIfPresent(object, "codex", state.codex);
        return object;
    }

    static std::chrono::seconds epochOf(DateCoding coding)
    {
        return coding == DateCoding::secondsSince2001 ? from1970To2001 : std::chrono::seconds::zero();
    }

private:
    json of(const AgentTask& task) const
    {
        json object{{"id", task.id}, {"agent", nameOf(task.agent)}, {"title", task.title},
            {"project", task.project}, {"phase", nameOf(task.phase)}, {"since", of(task.since)}};
        addIfPresent(object, "detail", task.detail);
        return object;
    }

    json of(const AgentUsage& usage) const
    {
        json object = json::object();
        addIfPresent(object, "session", usage.session);
        addIfPresent(object, "weekly", usage.weekly);
        return object;
    }

    json of(const UsageWindow& window) const
    {
        require(std::isfinite(window.percent), "a percentage is a number");
        json object{{"percent", window.percent}};
        addIfPresent(object, "resetsAt", window.resetsAt);
        return object;
    }

    json of(DeckDate date) const
    {
        return std::chrono::duration<double>(date.time_since_epoch() - epoch).count();
    }

    static json of(const std::string& text) { return text; }

    template <class T>
    void addIfPresent(json& object, const char* key, const std::optional<T>& value) const
    {
        if (value) object[key] = of(*value);
    }

    const std::chrono::seconds epoch;
};

// ---- reading

class Decoder {
public:
    explicit Decoder(DateCoding coding) : epoch(Encoder::epochOf(coding)) {}

    AgentDeckState state(const json& object) const
    {
        const json& list = member(object, "tasks");
        check(list.is_array());
        std::vector<AgentTask> tasks;
        for (const json& one : list) tasks.push_back(task(one));
        return {std::move(tasks), count(object, "running"), count(object, "waiting"), count(object, "idle"),
            ifPresent(object, "claude", &Decoder::usage), ifPresent(object, "codex", &Decoder::usage),
            date(member(object, "updatedAt"))};
    }

private:
    AgentTask task(const json& object) const
    {
        return {text(member(object, "id")),
            enumNamed(text(member(object, "agent")), {AgentKind::claude, AgentKind::codex}),
            text(member(object, "title")), text(member(object, "project")),
            enumNamed(
                text(member(object, "phase")), {AgentPhase::running, AgentPhase::waiting, AgentPhase::idle}),
            ifPresent(object, "detail", &Decoder::text), date(member(object, "since"))};
    }

    AgentUsage usage(const json& object) const
    {
        return {
            ifPresent(object, "session", &Decoder::window), ifPresent(object, "weekly", &Decoder::window)};
    }

    UsageWindow window(const json& object) const
    {
        return {number(member(object, "percent")), ifPresent(object, "resetsAt", &Decoder::date)};
    }

    DeckDate date(const json& value) const
    {
        const double seconds = number(value);
        check(std::abs(seconds) <= farthestSeconds);
        return DeckDate(epoch + std::chrono::microseconds(std::llround(seconds * 1e6)));
    }

    std::string text(const json& value) const
    {
        check(value.is_string());
        return value.get<std::string>();
    }

    static double number(const json& value)
    {
        check(value.is_number());
        return value.get<double>();
    }

    static int count(const json& object, const char* key)
    {
        const json& value = member(object, key);
        check(value.is_number_integer());
        const auto wide = value.get<std::int64_t>();
        check(std::in_range<int>(wide) && !(value.is_number_unsigned() && wide < 0));
        return static_cast<int>(wide);
    }

    static const json& member(const json& object, const char* key)
    {
        check(object.is_object());
        const auto found = object.find(key);
        check(found != object.end());
        return *found;
    }

    template <class T>
    std::optional<T> ifPresent(
        const json& object, const char* key, T (Decoder::*read)(const json&) const) const
    {
        check(object.is_object());
        const auto found = object.find(key);
        if (found == object.end() || found->is_null()) return std::nullopt;
        return (this->*read)(*found);
    }

    const std::chrono::seconds epoch;
};

// ---- hashing

template <class T>
std::size_t hashOf(const T& value)
{
    return std::hash<T>{}(value);
}

std::size_t hashOf(DeckDate date)
{
    return hashOf(date.time_since_epoch().count());
}

template <class T>
std::size_t hashOf(const std::optional<T>& value)
{
    return value ? hashOf(*value) + 1 : 0;
}

// The shift keeps small numbers from meeting: with products alone, one task's agent and the state's count of
// those that wait would weigh the same.
std::size_t mix(std::size_t hash, std::size_t value)
{
    hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
    return hash ^ (hash >> 32);
}

template <class... Values>
std::size_t hashOfAll(const Values&... values)
{
    std::size_t hash = 1;
    ((hash = mix(hash, hashOf(values))), ...);
    return hash;
}

} // namespace

const char* nameOf(AgentKind kind)
{
    return kind == AgentKind::claude ? "claude" : "codex";
}

const char* nameOf(AgentPhase phase)
{
    switch (phase) {
    case AgentPhase::running:
        return "running";
    case AgentPhase::waiting:
        return "waiting";
    case AgentPhase::idle:
        break;
    }
    return "idle";
}

std::string AgentDeckState::encode(DateCoding dates, int indent) const
{
    // A title may be cut anywhere.
    return Encoder(dates).of(*this).dump(indent, ' ', false, json::error_handler_t::replace);
}

std::optional<AgentDeckState> AgentDeckState::decode(std::string_view text, DateCoding dates)
{
    if (text.size() > maxSize) return std::nullopt;
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    const json parsed = json::parse(text, keepShallow, false);
    try {
        return Decoder(dates).state(parsed);
    } catch (const Malformed&) {
        return std::nullopt;
    }
}

} // namespace pelorin

std::size_t std::hash<pelorin::AgentTask>::operator()(const pelorin::AgentTask& task) const
{
    return pelorin::hashOfAll(
        task.id, task.agent, task.title, task.project, task.phase, task.detail, task.since);
}

std::size_t std::hash<pelorin::UsageWindow>::operator()(const pelorin::UsageWindow& window) const
{
    return pelorin::hashOfAll(window.percent, window.resetsAt);
}

std::size_t std::hash<pelorin::AgentUsage>::operator()(const pelorin::AgentUsage& usage) const
{
    return pelorin::hashOfAll(usage.session, usage.weekly);
}

std::size_t std::hash<pelorin::AgentDeckState>::operator()(const pelorin::AgentDeckState& state) const
{
    std::size_t hash = pelorin::hashOfAll(
        state.running, state.waiting, state.idle, state.claude, state.codex, state.updatedAt);
    for (const auto& task : state.tasks) hash = pelorin::mix(hash, pelorin::hashOf(task));
    return hash;
}
