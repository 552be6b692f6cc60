#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr int maxDepth = 16;
constexpr std::size_t maxUris = 8;
constexpr std::size_t maxHostSize = 253; // of a name in the DNS

const json* member(const json& object, const char* key)
{
    if (!object.is_object()) return nullptr;
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

bool dropPrefix(std::string_view& text, std::string_view prefix)
{
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

// host[:port][?transport=udp], after the scheme.
std::optional<PathServers::Server> serverIn(std::string_view text)
{
    if (const auto query = text.find('?'); query != text.npos) {
        if (text.substr(query) != "?transport=udp") return std::nullopt;
        text = text.substr(0, query);
    }
    PathServers::Server server;
    if (const auto colon = text.find(':'); colon != text.npos) {
        const std::string_view digits = text.substr(colon + 1);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), server.port);
        if (error != std::errc{} || end != digits.data() + digits.size() || server.port == 0)
            return std::nullopt;
        text = text.substr(0, colon);
    }
    const bool isName = !text.empty() && text.size() <= maxHostSize
        && std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F && c != '/' && c != '@'; });
    if (!isName) return std::nullopt;
    server.host = text;
    return server;
}

} // namespace

Result<json, NetError> ServiceMessage::parse(std::string_view text)
{
    const auto isShallow = [](int depth, json::parse_event_t, json&) { return depth < maxDepth; };
    json message = json::parse(text, isShallow, false);
    if (!message.is_object())
        return std::unexpected(NetError{"rendezvous sent something that isn't a JSON object"});
    return message;
}

std::string ServiceMessage::text(const json& message, const char* key)
{
    const json* const value = member(message, key);
    return value && value->is_string() ? value->get<std::string>() : std::string();
}

ServiceMessage::Servers ServiceMessage::servers(const json& message)
{
    Servers servers;
    const json* const turn = member(message, "turn");
    const json* const uris = turn ? member(*turn, "uris") : nullptr;
    if (!uris || !uris->is_array()) return servers;
    for (std::size_t i = 0; i < std::min(uris->size(), maxUris); ++i) {
        const json& uri = (*uris)[i];
        if (!uri.is_string()) continue;
        std::string_view rest = uri.get_ref<const std::string&>();
        const bool isRelay = dropPrefix(rest, "turn:");
        if (!isRelay && !dropPrefix(rest, "stun:")) continue;
        const auto server = serverIn(rest);
        if (!server) continue;
        servers.path.stun.push_back(*server);
        if (isRelay) servers.path.turn.push_back(*server);
    }
    TurnCredentials credentials{text(*turn, "username"), text(*turn, "credential")};
    if (!servers.path.turn.empty() && !credentials.username.empty() && !credentials.credential.empty())
        servers.credentials = std::move(credentials);
    return servers;
}

} // namespace pelorin
