#include "PelorinCore/Wire/FrameCodec.h"

#include "PelorinCore/Wire/ByteReader.h"
#include "PelorinCore/Wire/ByteWriter.h"
#include "PelorinCore/Wire/MessageCodec.h"

#include <limits>

namespace pelorin {

namespace {

// What a decoder may keep between calls for nothing: enough for the usual access unit, far from the largest.
constexpr std::size_t idleCapacity = 1 << 20;

std::uint32_t payloadLength(std::size_t size)
{
    require(size <= std::numeric_limits<std::uint32_t>::max(), "a payload fits its 32-bit length");
    return static_cast<std::uint32_t>(size);
}

std::uint32_t announcedLength(ByteView header)
{
    return std::uint32_t{header[1]} << 24 | std::uint32_t{header[2]} << 16 | std::uint32_t{header[3]} << 8
        | header[4];
}

// Written once the payload behind it is, so that a payload is not copied to learn its length.
void setAnnouncedLength(Bytes& frame)
{
    const std::uint32_t length = payloadLength(frame.size() - frameHeaderSize);
    for (std::size_t i = 0; i < sizeof length; ++i)
        frame[frameHeaderSize - 1 - i] = static_cast<std::uint8_t>(length >> (8 * i));
}

} // namespace

Bytes encodeFrame(const Message& message)
{
    ByteWriter frame;
    frame.writeUInt8(static_cast<std::uint8_t>(typeOf(message)));
    frame.writeUInt32(0);
    encodePayload(message, frame);
    setAnnouncedLength(frame.data);
    return std::move(frame.data);
}

Bytes encodeVideoFrameHead(bool isKeyframe, std::uint64_t ptsMicros, std::size_t dataSize)
{
    constexpr std::size_t fixedFields = 1 + 8 + 4; // isKeyframe, ptsMicros, the data's own count
    ByteWriter head;
    head.writeUInt8(static_cast<std::uint8_t>(MessageType::videoFrame));
    head.writeUInt32(payloadLength(fixedFields + dataSize));
    head.writeBool(isKeyframe);
    head.writeUInt64(ptsMicros);
    head.writeUInt32(static_cast<std::uint32_t>(dataSize));
    return std::move(head.data);
}

Result<std::vector<Message>, ProtocolError> FrameDecoder::feed(ByteView bytes)
{
    buffer.insert(buffer.end(), bytes.data(), bytes.data() + bytes.size());
    std::vector<Message> messages;
    ByteView rest = buffer;
    while (rest.size() >= frameHeaderSize) {
        const std::uint32_t length = announcedLength(rest);
        if (length > maxPayloadSize) return std::unexpected(ProtocolError::frameTooLarge(length));
        if (rest.size() - frameHeaderSize < length) break;
        auto decoded = decodePayload(rest[0], rest.subspan(frameHeaderSize, length), messages);
        if (!decoded) return std::unexpected(std::move(decoded).error());
        rest = rest.subspan(frameHeaderSize + length);
    }
    keepOnly(rest);
    return messages;
}

void FrameDecoder::keepOnly(ByteView rest)
{
    const bool isOversized = buffer.capacity() > idleCapacity && rest.size() < idleCapacity / 2;
    if (isOversized)
        buffer = Bytes(rest.begin(), rest.end());
    else
        buffer.erase(buffer.begin(), buffer.end() - std::ssize(rest));
}

} // namespace pelorin
