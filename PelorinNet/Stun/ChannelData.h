#pragma once

#include "PelorinCore/Result.h"

#include <array>
#include <optional>

// What TURN wraps around relayed data once a channel is bound (RFC 8656, 12.4): channel number, length,
// payload, zeros to a multiple of four.
namespace pelorin::ChannelData {

struct Range {
    std::uint16_t first;
    std::uint16_t last; // the last that is in it
    constexpr bool contains(std::uint16_t channel) const { return first <= channel && channel <= last; }
};
inline constexpr Range channelRange{0x4000, 0x4FFF};
inline constexpr std::size_t headerSize = 4;

struct Parsed {
    std::uint16_t channel = 0;
    ByteView payload; // within the datagram
};

Bytes frame(std::uint16_t channel, ByteView payload); // payload under 65,536 bytes
std::array<std::uint8_t, headerSize> header(std::uint16_t channel, std::size_t payloadSize);
std::size_t padding(std::size_t payloadSize); // 0...3 zeros that follow the payload
std::optional<Parsed> parse(ByteView datagram);

} // namespace pelorin::ChannelData
