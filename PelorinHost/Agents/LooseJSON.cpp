#include "PelorinHost/Agents/LooseJSON.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr int maxDepth = 8; // what we read lies four deep
constexpr double farthestMicros = 1e17; // some 3000 years

const json null;

} // namespace

json LooseJSON::object(std::string_view text)
{
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    json parsed = json::parse(text, keepShallow, false);
    return parsed.is_object() ? parsed : json::object();
}

const json& LooseJSON::member(const json& object, const char* key)
{
    if (!object.is_object()) return null;
    const auto found = object.find(key);
    return found == object.end() ? null : *found;
}

std::string LooseJSON::text(const json& object, const char* key)
{
    const json& value = member(object, key);
    return value.is_string() ? value.get<std::string>() : std::string();
}

std::optional<double> LooseJSON::number(const json& object, const char* key)
{
    const json& value = member(object, key);
    if (!value.is_number()) return std::nullopt;
    const double number = value.get<double>();
    return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::optional<int> LooseJSON::integer(const json& object, const char* key)
{
    const auto value = number(object, key);
    if (!value || *value != std::floor(*value) || std::abs(*value) > 2'000'000'000) return std::nullopt;
    return static_cast<int>(*value);
}

bool LooseJSON::isTrue(const json& object, const char* key)
{
    const json& value = member(object, key);
    return value.is_boolean() && value.get<bool>();
}

std::optional<DeckDate> LooseJSON::date(const json& object, const char* key, std::chrono::microseconds unit)
{
    const auto value = number(object, key);
    if (!value) return std::nullopt;
    const double micros = *value * static_cast<double>(unit.count());
    if (std::abs(micros) > farthestMicros) return std::nullopt;
    return DeckDate(std::chrono::microseconds(std::llround(micros)));
}

std::optional<DeckDate> LooseJSON::isoDate(const json& object, const char* key)
{
    const std::string written = text(object, key);
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    int hour = 0;
    int minute = 0;
    double second = 0;
    if (std::sscanf(written.c_str(), "%4d-%2u-%2uT%2d:%2d:%6lf", &year, &month, &day, &hour, &minute, &second)
        != 6)
        return std::nullopt;
    const std::chrono::year_month_day date{
        std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
    if (!date.ok() || !(second >= 0 && second < 61)) return std::nullopt;
    return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute)
        + std::chrono::microseconds(std::llround(second * 1e6));
}

} // namespace pelorin
