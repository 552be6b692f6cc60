#pragma once

#include "PelorinCore/Result.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace pelorin {

// A JSON value in its own text form, well-formed and on one line: what the service passes on unread.
struct JsonText {
    std::string text;
    bool operator==(const JsonText&) const = default;
};

// What hosts and phones say to the service. An object with a "type" that is not known is Unknown, so that
// newer peers can say more.
namespace PeerMessage {

struct Unknown {};
struct Register {
    Bytes publicKey; // as it came, of any size
    Bytes signature;
};
struct Accept {
    std::string session;
    JsonText response; // an object
};
struct Reject {
    std::string session;
    JsonText reason; // a string
};
struct Signal {
    std::string session; // empty from a phone
    JsonText data; // an object
};
struct Closed {
    std::string session;
};
struct Connect {
    JsonText request; // an object
};

using FromHost = std::variant<Unknown, Register, Accept, Reject, Signal, Closed>;
using FromPhone = std::variant<Unknown, Connect, Signal>;

// Nothing for what is not an object with a "type", lacks a field that its type has, has one of another kind,
// or is nested deeper than 32 levels.
std::optional<FromHost> fromHost(std::string_view text);
std::optional<FromPhone> fromPhone(std::string_view text);

} // namespace PeerMessage

// What the service says to hosts and phones.
namespace ToPeer {

std::string challenge(std::string_view nonce);
std::string registered();
std::string error(std::string_view reason);
// relay: the "turn" object, or nothing.
std::string connect(std::string_view session, const JsonText& request, const std::optional<JsonText>& relay);
std::string signalFromPhone(std::string_view session, const JsonText& data);
std::string closedSession(std::string_view session);

std::string hello(bool isOnline, const std::optional<JsonText>& relay);
std::string accept(const JsonText& response);
std::string reject(const JsonText& reason);
std::string reject(std::string_view reason);
std::string signalFromHost(const JsonText& data);
std::string closed();

} // namespace ToPeer
} // namespace pelorin
