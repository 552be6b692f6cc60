#pragma once

#include "PelorinRendezvous/WebSocket/WebSocketFrames.h"

namespace pelorin {

// Cuts what a WebSocket client sends into messages, under the rules of RFC 6455 and ours: no binary messages,
// at most 64 KiB a message. Holds no memory between whole frames.
class WebSocketDecoder {
public:
    struct Event {
        enum class Kind { text, ping, pong, close } kind;
        std::string payload; // of close: the peer's reason
        WebSocket::CloseCode code = WebSocket::CloseCode::noCode; // of close
    };

    void append(ByteView bytes);
    // The next whole message or control frame, nothing before more bytes come, or the code to close with;
    // after that, and after a close, nothing sensible follows.
    Result<std::optional<Event>, WebSocket::CloseCode> next();

    static constexpr std::size_t maxMessage = 64 * 1024;

private:
    struct Header {
        bool isFinal;
        WebSocket::Opcode opcode;
        std::size_t size; // of the header with its mask
        std::size_t payloadSize;
    };
    Result<std::optional<Header>, WebSocket::CloseCode> readHeader() const;
    std::optional<WebSocket::CloseCode> refusalOf(const Header& header) const;
    std::string takePayload(const Header& header);
    Result<std::optional<Event>, WebSocket::CloseCode> takeMessagePart(bool isFinal, std::string part);

    Bytes buffer; // from the start of a frame on
    std::size_t consumed = 0; // of the buffer
    std::string message; // the parts of a message that is not whole yet
    bool isInMessage = false;
};

} // namespace pelorin
