#include "PelorinRendezvous/Cluster/NodeMessage.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace pelorin {
namespace {

constexpr std::string_view hostPrefix = "pelorin.host.";
constexpr std::string_view nodePrefix = "pelorin.node.";
constexpr std::string_view lastWord = ".last";
constexpr std::string_view aliveWord = "alive";
constexpr std::size_t nameSize = 22; // of 16 bytes in base64url
constexpr std::size_t maxText = 128 * 1024; // a peer's 64 KiB and what the switchboard puts around it
constexpr std::size_t maxReason = 123; // RFC 6455, 5.5: what a close frame has room for
constexpr std::chrono::milliseconds maxAge = std::chrono::hours(24 * 365 * 100);

std::optional<std::string_view> after(std::string_view prefix, std::string_view text)
{
    if (!text.starts_with(prefix)) return std::nullopt;
    return text.substr(prefix.size());
}

std::optional<long long> numberIn(std::string_view text)
{
    long long value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || rest != end || value < 0) return std::nullopt;
    return value;
}

std::optional<NodeMessage::Any> parseRegistered(std::string_view number)
{
    const auto age = numberIn(number);
    if (!age || *age > maxAge.count()) return std::nullopt;
    return NodeMessage::Registered{std::chrono::milliseconds(*age)};
}

std::optional<NodeMessage::Any> parseClose(std::string_view number, std::string_view reason)
{
    using WebSocket::CloseCode;
    const auto value = numberIn(number);
    if (!value || reason.size() > maxReason) return std::nullopt;
    for (const auto code : {CloseCode::inOrder, CloseCode::goingAway, CloseCode::ruleBroken,
             CloseCode::tooLarge, CloseCode::tryAgainLater})
        if (*value == static_cast<long long>(code)) return NodeMessage::Close{code, reason};
    return std::nullopt;
}

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};

} // namespace

bool NodeAddress::isName(std::string_view text)
{
    return text.size() == nameSize && std::ranges::all_of(text, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'
            || c == '_';
    });
}

std::optional<NodeAddress> NodeAddress::parse(std::string_view subject)
{
    const auto names = after(nodePrefix, subject);
    if (!names || names->size() != 2 * nameSize + 1 || (*names)[nameSize] != '.') return std::nullopt;
    const auto node = names->substr(0, nameSize);
    const auto token = names->substr(nameSize + 1);
    if (!isName(node) || !isName(token)) return std::nullopt;
    return NodeAddress{std::string(node), std::string(token)};
}

std::string NodeAddress::subject() const
{
    return fmt::format("{}{}.{}", nodePrefix, node, token);
}

std::string NodeAddress::subjectOfLastWord() const
{
    return subject() + std::string(lastWord);
}

std::optional<NodeAddress> NodeAddress::parseSender(std::string_view replyTo)
{
    if (replyTo.ends_with(lastWord)) replyTo.remove_suffix(lastWord.size());
    return parse(replyTo);
}

std::string NodeSubject::ofHost(std::string_view hostID)
{
    return fmt::format("{}{}", hostPrefix, hostID);
}

std::optional<std::string> NodeSubject::hostIn(std::string_view subject)
{
    const auto hostID = after(hostPrefix, subject);
    return hostID ? std::optional(std::string(*hostID)) : std::nullopt;
}

std::string NodeSubject::ofAll(std::string_view node)
{
    return fmt::format("{}{}.>", nodePrefix, node);
}

std::string NodeSubject::alive(std::string_view node)
{
    return fmt::format("{}{}.{}", nodePrefix, node, aliveWord);
}

std::string NodeSubject::aliveReply(std::string_view asker, std::string_view asked)
{
    return fmt::format("{}.{}", alive(asker), asked);
}

std::optional<std::string> NodeSubject::askedIn(std::string_view aliveReply, std::string_view asker)
{
    const auto asked = after(alive(asker) + '.', aliveReply);
    if (!asked || !NodeAddress::isName(*asked)) return std::nullopt;
    return std::string(*asked);
}

std::optional<NodeMessage::Any> NodeMessage::parse(std::string_view text)
{
    const std::size_t lineEnd = std::min(text.find('\n'), text.size());
    const bool hasRest = lineEnd < text.size();
    const std::string_view line = text.substr(0, lineEnd);
    const std::string_view rest = hasRest ? text.substr(lineEnd + 1) : std::string_view();
    if (hasRest && line == "text" && rest.size() <= maxText) return Text{rest};
    if (const auto number = after("close ", line); number && hasRest) return parseClose(*number, rest);
    if (hasRest) return std::nullopt;
    if (line == "open") return Open{};
    if (line == "ask") return Ask{};
    if (line == "online") return Online{};
    if (line == "gone") return Gone{};
    if (const auto number = after("registered ", line)) return parseRegistered(*number);
    return std::nullopt;
}

std::string NodeMessage::write(const Any& message)
{
    return std::visit(
        Overloaded{
            [](const Open&) -> std::string { return "open"; },
            [](const Ask&) -> std::string { return "ask"; },
            [](const Online&) -> std::string { return "online"; },
            [](const Gone&) -> std::string { return "gone"; },
            [](const Registered& it) { return fmt::format("registered {}", it.age.count()); },
            [](const Text& it) { return fmt::format("text\n{}", it.text); },
            [](const Close& it) { return fmt::format("close {}\n{}", static_cast<int>(it.code), it.reason); },
        },
        message);
}

} // namespace pelorin
