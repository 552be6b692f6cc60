#pragma once

#include "PelorinCore/AgentDeck/AgentDeckState.h"

#include <nlohmann/json_fwd.hpp>

namespace pelorin {

// Reads what another program writes for itself, in a form that changes with its versions: a member that is
// missing and one that holds another type are the same, absent.
namespace LooseJSON {

nlohmann::json object(std::string_view text); // empty when text is no object; what lies too deep is left out

const nlohmann::json& member(const nlohmann::json& object, const char* key); // null when absent
std::string text(const nlohmann::json& object, const char* key); // empty when absent
std::optional<double> number(const nlohmann::json& object, const char* key); // finite
std::optional<int> integer(const nlohmann::json& object, const char* key);
bool isTrue(const nlohmann::json& object, const char* key);
// A date as a count of units since 1970.
std::optional<DeckDate> date(const nlohmann::json& object, const char* key, std::chrono::microseconds unit);
// 2026-01-31T12:00:00.123Z
std::optional<DeckDate> isoDate(const nlohmann::json& object, const char* key);

} // namespace LooseJSON

} // namespace pelorin
