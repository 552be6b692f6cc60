#include "PelorinRendezvous/WebSocket/WebSocketFrames.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinRendezvous/Http/HttpRequest.h"

#include <fmt/format.h>
#include <openssl/sha.h>

namespace pelorin {
namespace {

constexpr std::string_view handshakeGUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"; // section 1.3
constexpr std::size_t keySize = 16;
constexpr std::size_t maxReason = 123; // with the code, what a control frame holds

void appendBigEndian(Bytes& bytes, std::uint64_t value, int count)
{
    for (int i = count - 1; i >= 0; --i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

} // namespace

std::optional<std::string> WebSocket::handshakeAnswer(const HttpRequest& request)
{
    const std::string key = request.field("sec-websocket-key");
    const auto nonce = bytesFromBase64(key);
    if (!request.isUpgrade() || request.field("sec-websocket-version") != "13" || !nonce
        || nonce->size() != keySize)
        return std::nullopt;
    const std::string proven = key + std::string(handshakeGUID);
    std::uint8_t digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const std::uint8_t*>(proven.data()), proven.size(), digest);
    return fmt::format("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                       "Sec-WebSocket-Accept: {}\r\n\r\n",
        base64EncodedString(digest));
}

Bytes WebSocket::frame(Opcode opcode, std::string_view payload)
{
    constexpr std::uint8_t final = 0x80;
    Bytes bytes;
    bytes.reserve(payload.size() + 10);
    bytes.push_back(final | static_cast<std::uint8_t>(opcode));
    if (payload.size() < 126) {
        bytes.push_back(static_cast<std::uint8_t>(payload.size()));
    } else if (payload.size() < 65'536) {
        bytes.push_back(126);
        appendBigEndian(bytes, payload.size(), 2);
    } else {
        bytes.push_back(127);
        appendBigEndian(bytes, payload.size(), 8);
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Bytes WebSocket::closeFrame(CloseCode code, std::string_view reason)
{
    if (code == CloseCode::noCode) return frame(Opcode::close, {});
    const auto number = static_cast<std::uint16_t>(code);
    std::string payload{static_cast<char>(number >> 8), static_cast<char>(number & 0xFF)};
    payload += reason.substr(0, maxReason);
    return frame(Opcode::close, payload);
}

} // namespace pelorin
