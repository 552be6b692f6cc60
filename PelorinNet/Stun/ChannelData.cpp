#include "PelorinNet/Stun/ChannelData.h"

#include <algorithm>

namespace pelorin {

std::array<std::uint8_t, ChannelData::headerSize> ChannelData::header(
    std::uint16_t channel, std::size_t payloadSize)
{
    require(payloadSize < 65'536, "a channel carries payloads under 65,536 bytes");
    return {std::uint8_t(channel >> 8), std::uint8_t(channel), std::uint8_t(payloadSize >> 8),
        std::uint8_t(payloadSize)};
}

std::size_t ChannelData::padding(std::size_t payloadSize)
{
    return (4 - payloadSize % 4) % 4;
}

Bytes ChannelData::frame(std::uint16_t channel, ByteView payload)
{
    Bytes framed(headerSize + payload.size() + padding(payload.size()));
    const auto body = std::ranges::copy(header(channel, payload.size()), framed.begin()).out;
    std::ranges::copy(payload, body);
    return framed;
}

std::optional<ChannelData::Parsed> ChannelData::parse(ByteView datagram)
{
    if (datagram.size() < headerSize) return std::nullopt;
    if ((datagram[0] & 0xF0) != 0x40) return std::nullopt; // the range's upper half is left to others now
    const std::size_t length = datagram[2] << 8 | datagram[3];
    if (datagram.size() < headerSize + length) return std::nullopt;
    return Parsed{std::uint16_t(datagram[0] << 8 | datagram[1]), datagram.subspan(headerSize, length)};
}

} // namespace pelorin
