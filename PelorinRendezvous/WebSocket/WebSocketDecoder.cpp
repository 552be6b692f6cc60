#include "PelorinRendezvous/WebSocket/WebSocketDecoder.h"

#include "PelorinCore/Utf8.h"

#include <utility>

namespace pelorin {
namespace {
using WebSocket::CloseCode;
using WebSocket::Opcode;
using Event = WebSocketDecoder::Event;
using Next = Result<std::optional<Event>, CloseCode>;

constexpr std::size_t maskSize = 4;
constexpr std::size_t maxControl = 125;

std::uint64_t bigEndian(ByteView bytes)
{
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) value = value << 8 | byte;
    return value;
}

bool isControl(Opcode opcode)
{
    return static_cast<int>(opcode) >= 8;
}

bool isKnown(Opcode opcode)
{
    switch (opcode) {
    case Opcode::continuation:
    case Opcode::text:
    case Opcode::binary:
    case Opcode::close:
    case Opcode::ping:
    case Opcode::pong:
        return true;
    }
    return false;
}

// Section 7.4: what may stand in a close frame.
bool maySend(std::uint64_t code)
{
    const bool isOfTheProtocol = (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014);
    return isOfTheProtocol || (code >= 3000 && code <= 4999);
}

Next closeEvent(std::string payload)
{
    if (payload.empty()) return Event{Event::Kind::close, {}, CloseCode::noCode};
    if (payload.size() < 2) return std::unexpected(CloseCode::protocolError);
    const ByteView bytes(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size());
    const auto code = bigEndian(bytes.first(2));
    if (!maySend(code)) return std::unexpected(CloseCode::protocolError);
    payload.erase(0, 2);
    if (!isUtf8(payload)) return std::unexpected(CloseCode::notUTF8);
    return Event{Event::Kind::close, std::move(payload), static_cast<CloseCode>(code)};
}

} // namespace

void WebSocketDecoder::append(ByteView bytes)
{
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(consumed));
    consumed = 0;
    buffer.insert(buffer.end(), bytes.begin(), bytes.end());
}

Next WebSocketDecoder::next()
{
    while (true) {
        const auto header = readHeader();
        if (!header) return std::unexpected(header.error());
        if (!*header) return std::nullopt;
        if (const auto refusal = refusalOf(**header)) return std::unexpected(*refusal);
        if (buffer.size() - consumed < (*header)->size + (*header)->payloadSize) return std::nullopt;
        std::string payload = takePayload(**header);
        switch ((*header)->opcode) {
        case Opcode::close:
            return closeEvent(std::move(payload));
        case Opcode::ping:
            return Event{Event::Kind::ping, std::move(payload)};
        case Opcode::pong:
            return Event{Event::Kind::pong, std::move(payload)};
        default:
            break;
        }
        Next whole = takeMessagePart((*header)->isFinal, std::move(payload));
        if (!whole || *whole) return whole;
    }
}

Result<std::optional<WebSocketDecoder::Header>, CloseCode> WebSocketDecoder::readHeader() const
{
    const ByteView bytes = ByteView(buffer).subspan(consumed);
    if (bytes.size() < 2) return std::nullopt;
    const bool hasReservedBits = (bytes[0] & 0x70) != 0;
    const bool isMasked = (bytes[1] & 0x80) != 0; // section 5.1: a client's frames always are
    const auto opcode = static_cast<Opcode>(bytes[0] & 0x0F);
    if (hasReservedBits || !isMasked || !isKnown(opcode)) return std::unexpected(CloseCode::protocolError);

    const std::uint64_t shortSize = bytes[1] & 0x7F;
    const std::size_t extension = shortSize == 127 ? 8 : shortSize == 126 ? 2 : 0;
    if (bytes.size() < 2 + extension) return std::nullopt;
    const std::uint64_t size = extension == 0 ? shortSize : bigEndian(bytes.subspan(2, extension));
    // Section 5.2: the shortest form that holds the size.
    if ((extension == 2 && size < 126) || (extension == 8 && size < 65'536))
        return std::unexpected(CloseCode::protocolError);
    return Header{(bytes[0] & 0x80) != 0, opcode, 2 + extension + maskSize, size};
}

// Told as soon as the header is there, so that nothing of a message that is too large is kept.
std::optional<CloseCode> WebSocketDecoder::refusalOf(const Header& header) const
{
    if (isControl(header.opcode)) {
        const bool isWhole = header.isFinal && header.payloadSize <= maxControl;
        return isWhole ? std::nullopt : std::optional(CloseCode::protocolError);
    }
    const bool continues = header.opcode == Opcode::continuation;
    if (continues != isInMessage) return CloseCode::protocolError;
    if (header.opcode == Opcode::binary) return CloseCode::unacceptable;
    if (header.payloadSize > maxMessage - message.size()) return CloseCode::tooLarge;
    return std::nullopt;
}

std::string WebSocketDecoder::takePayload(const Header& header)
{
    const ByteView frame = ByteView(buffer).subspan(consumed, header.size + header.payloadSize);
    const ByteView mask = frame.subspan(header.size - maskSize, maskSize);
    const ByteView masked = frame.subspan(header.size);
    std::string payload(masked.size(), '\0');
    for (std::size_t i = 0; i < masked.size(); ++i)
        payload[i] = static_cast<char>(masked[i] ^ mask[i % maskSize]);
    consumed += frame.size();
    if (consumed == buffer.size()) {
        buffer = {}; // with its memory: most connections are idle most of the time
        consumed = 0;
    }
    return payload;
}

Next WebSocketDecoder::takeMessagePart(bool isFinal, std::string part)
{
    if (!isInMessage)
        message = std::move(part);
    else
        message += part;
    isInMessage = !isFinal;
    if (!isFinal) return std::nullopt;
    if (!isUtf8(message)) return std::unexpected(CloseCode::notUTF8);
    return Event{Event::Kind::text, std::exchange(message, {})};
}

} // namespace pelorin
