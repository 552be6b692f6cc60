#pragma once

#include "PelorinCore/Result.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

struct HttpRequest;

// RFC 6455, the server's side of what is not reading.
namespace WebSocket {

// Why a connection is closed (section 7.4).
enum class CloseCode : std::uint16_t {
    inOrder = 1000,
    goingAway = 1001,
    protocolError = 1002,
    unacceptable = 1003, // a binary message
    noCode = 1005, // never sent: the peer's close frame had none
    notUTF8 = 1007,
    ruleBroken = 1008,
    tooLarge = 1009,
    tryAgainLater = 1013,
};

enum class Opcode : std::uint8_t { continuation = 0, text = 1, binary = 2, close = 8, ping = 9, pong = 10 };

// The answer to a request that asks for the change of protocol rightly; nothing to any other.
std::optional<std::string> handshakeAnswer(const HttpRequest& request);

Bytes frame(Opcode opcode, std::string_view payload); // whole, unmasked
Bytes closeFrame(CloseCode code, std::string_view reason); // a reason longer than 123 bytes is cut

} // namespace WebSocket
} // namespace pelorin
