#include "PelorinRendezvous/PeerMessage.h"

#include "PelorinCore/Pairing/Base64URL.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {
using nlohmann::json;
using namespace PeerMessage;

// Writing a value out again goes down one call for each level.
constexpr int maxDepth = 32;

// The size of a message is bounded, so its text may be read whole before the depth is known; what lies deeper
// is left out meanwhile.
json parseObject(std::string_view text)
{
    bool isTooDeep = false;
    const auto observe = [&](int depth, json::parse_event_t, const json&) {
        if (depth > maxDepth) isTooDeep = true;
        return !isTooDeep;
    };
    json value = json::parse(text.begin(), text.end(), observe, false);
    return isTooDeep || !value.is_object() ? json() : value;
}

JsonText textOf(const json& value)
{
    return {value.dump(-1, ' ', false, json::error_handler_t::replace)};
}

JsonText jsonString(std::string_view text)
{
    return textOf(json(text));
}

std::optional<std::string> stringIn(const json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::optional<JsonText> objectIn(const json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || !found->is_object()) return std::nullopt;
    return textOf(*found);
}

std::optional<Bytes> bytesIn(const json& object, const char* key)
{
    const auto text = stringIn(object, key);
    return text ? bytesFromBase64(*text) : std::nullopt;
}

std::optional<FromHost> readRegister(const json& object)
{
    auto publicKey = bytesIn(object, "publicKey");
    auto signature = bytesIn(object, "signature");
    if (!publicKey || !signature) return std::nullopt;
    return Register{std::move(*publicKey), std::move(*signature)};
}

std::optional<FromHost> readAccept(const json& object, std::string session)
{
    auto response = objectIn(object, "response");
    if (!response) return std::nullopt;
    return Accept{std::move(session), std::move(*response)};
}

std::optional<FromHost> readReject(const json& object, std::string session)
{
    const auto reason = stringIn(object, "reason");
    if (!reason) return std::nullopt;
    return Reject{std::move(session), jsonString(*reason)};
}

std::optional<Signal> readSignal(const json& object, std::string session)
{
    auto data = objectIn(object, "data");
    if (!data) return std::nullopt;
    return Signal{std::move(session), std::move(*data)};
}

std::string relayField(const std::optional<JsonText>& relay)
{
    return relay ? R"(,"turn":)" + relay->text : std::string();
}

} // namespace

std::optional<FromHost> PeerMessage::fromHost(std::string_view text)
{
    const json object = parseObject(text);
    const auto type = stringIn(object, "type");
    if (!type) return std::nullopt;
    if (*type == "register") return readRegister(object);
    const bool isOfSession = *type == "accept" || *type == "reject" || *type == "signal" || *type == "closed";
    if (!isOfSession) return Unknown{};
    auto session = stringIn(object, "session");
    if (!session) return std::nullopt;
    if (*type == "accept") return readAccept(object, std::move(*session));
    if (*type == "reject") return readReject(object, std::move(*session));
    if (*type == "signal") return readSignal(object, std::move(*session));
    return Closed{std::move(*session)};
}

std::optional<FromPhone> PeerMessage::fromPhone(std::string_view text)
{
    const json object = parseObject(text);
    const auto type = stringIn(object, "type");
    if (!type) return std::nullopt;
    if (*type == "signal") return readSignal(object, {});
    if (*type != "connect") return Unknown{};
    auto request = objectIn(object, "request");
    if (!request) return std::nullopt;
    return Connect{std::move(*request)};
}

std::string ToPeer::challenge(std::string_view nonce)
{
    return fmt::format(R"({{"type":"challenge","nonce":{}}})", jsonString(nonce).text);
}

std::string ToPeer::registered()
{
    return R"({"type":"registered"})";
}

std::string ToPeer::error(std::string_view reason)
{
    return fmt::format(R"({{"type":"error","reason":{}}})", jsonString(reason).text);
}

std::string ToPeer::connect(
    std::string_view session, const JsonText& request, const std::optional<JsonText>& relay)
{
    return fmt::format(R"({{"type":"connect","session":{},"request":{}{}}})", jsonString(session).text,
        request.text, relayField(relay));
}

std::string ToPeer::signalFromPhone(std::string_view session, const JsonText& data)
{
    return fmt::format(R"({{"type":"signal","session":{},"data":{}}})", jsonString(session).text, data.text);
}

std::string ToPeer::closedSession(std::string_view session)
{
    return fmt::format(R"({{"type":"closed","session":{}}})", jsonString(session).text);
}

std::string ToPeer::hello(bool isOnline, const std::optional<JsonText>& relay)
{
    return fmt::format(R"({{"type":"hello","online":{}{}}})", isOnline, relayField(relay));
}

std::string ToPeer::accept(const JsonText& response)
{
    return fmt::format(R"({{"type":"accept","response":{}}})", response.text);
}

std::string ToPeer::reject(const JsonText& reason)
{
    return fmt::format(R"({{"type":"reject","reason":{}}})", reason.text);
}

std::string ToPeer::reject(std::string_view reason)
{
    return reject(jsonString(reason));
}

std::string ToPeer::signalFromHost(const JsonText& data)
{
    return fmt::format(R"({{"type":"signal","data":{}}})", data.text);
}

std::string ToPeer::closed()
{
    return R"({"type":"closed"})";
}

} // namespace pelorin
