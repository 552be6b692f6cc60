#pragma once

#include "PelorinNet/Queue/SerialQueue.h"
#include "PelorinRendezvous/WebSocket/WebSocketFrames.h"

#include <optional>
#include <string_view>
#include <variant>

namespace pelorin {

// Where a node is told about one phone, or one question of its own, as a subject of the broker. Both names
// are 16 random bytes in base64url.
struct NodeAddress {
    std::string node;
    std::string token;

    static std::optional<NodeAddress> parse(std::string_view subject);
    std::string subject() const;
    // As who sends a last word bears it, who does not care whether anybody is there to hear it.
    std::string subjectOfLastWord() const;
    static std::optional<NodeAddress> parseSender(std::string_view replyTo); // of any word
    bool operator==(const NodeAddress&) const = default;

    static bool isName(std::string_view text);
    static constexpr std::size_t nameBytes = 16;
};

namespace NodeSubject {

std::string ofHost(std::string_view hostID);
std::optional<std::string> hostIn(std::string_view subject); // whatever follows; it may be no host's id
std::string ofAll(std::string_view node); // what that node subscribes to
// Asked with the second as the address, tells whether anybody there still hears.
std::string alive(std::string_view node);
std::string aliveReply(std::string_view asker, std::string_view asked);
std::optional<std::string> askedIn(std::string_view aliveReply, std::string_view asker);

} // namespace NodeSubject

// What the nodes of a service say to each other: a word, its number if it has one, and what it carries after
// the end of the line.
namespace NodeMessage {

// To a host's subject.
struct Open {}; // a phone wants that host
struct Ask {}; // is it there?
struct Registered { // there, for so long now
    std::chrono::milliseconds age{};
};
// To an address.
struct Online {};
struct Text { // what the phone said, or is to hear
    std::string_view text;
};
struct Close { // the phone's connection
    WebSocket::CloseCode code{};
    std::string_view reason;
};
struct Gone {}; // who sends it knows nothing, or nothing any more, of that phone

using Any = std::variant<Open, Ask, Registered, Online, Text, Close, Gone>;

std::optional<Any> parse(std::string_view text); // views into text
std::string write(const Any& message);

} // namespace NodeMessage
} // namespace pelorin
