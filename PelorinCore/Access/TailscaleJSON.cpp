#include "PelorinCore/Access/TailscaleJSON.h"

#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr int maxDepth = 6; // Peer, its key, TailscaleIPs, an address: the deepest that we read

const json emptyObject = json::object();

} // namespace

json TailscaleJSON::parse(std::string_view text, std::size_t maxSize)
{
    if (text.size() > maxSize) {
        fail("the answer is too long");
        return emptyObject;
    }
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    json root = json::parse(text, keepShallow, false);
    if (root.is_object()) return root;
    fail("the answer is no JSON object");
    return emptyObject;
}

const json& TailscaleJSON::requiredObject(const json& parent, const char* key)
{
    const auto found = parent.find(key);
    if (found == parent.end() || found->is_null()) fail(std::string("no ") + key);
    return optionalObject(parent, key);
}

const json& TailscaleJSON::optionalObject(const json& parent, const char* key)
{
    const auto found = parent.find(key);
    if (found == parent.end() || found->is_null()) return emptyObject;
    if (found->is_object()) return *found;
    fail(std::string(key) + " is no object");
    return emptyObject;
}

std::optional<std::string> TailscaleJSON::optionalString(const json& parent, const char* key)
{
    const auto found = parent.find(key);
    if (found == parent.end() || found->is_null()) return std::nullopt;
    if (!found->is_string()) {
        fail(std::string(key) + " is no string");
        return std::nullopt;
    }
    const auto& text = found->get_ref<const std::string&>();
    return text.empty() ? std::nullopt : std::optional(text);
}

void TailscaleJSON::fail(std::string description)
{
    if (!firstProblem) firstProblem = TailscaleJSONError{std::move(description)};
}

std::string TailscaleJSON::withoutTrailingDot(std::string name)
{
    if (name.ends_with('.')) name.pop_back();
    return name;
}

} // namespace pelorin
