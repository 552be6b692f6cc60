#include "PelorinCore/Wire/FrameStamps.h"

#include "PelorinCore/Wire/ByteWriter.h"

#include <algorithm>
#include <array>
#include <utility>

namespace pelorin {

namespace {

// dc1cd4e6-8870-4ba5-9d81-dbde1d967b95 says that the user data is our stamps, in this layout; another layout
// gets another UUID.
constexpr std::array<std::uint8_t, 16> layoutUUID{
    0xDC, 0x1C, 0xD4, 0xE6, 0x88, 0x70, 0x4B, 0xA5, 0x9D, 0x81, 0xDB, 0xDE, 0x1D, 0x96, 0x7B, 0x95};

// A stamp is five base-128 digits, most significant first, each with its top bit set: with no zero byte in it
// the NAL unit can never need emulation prevention, so writer and reader are spared that.
constexpr std::size_t digitsPerStamp = 5;
constexpr std::size_t stampCount = 4;
constexpr std::uint8_t userDataSize = layoutUUID.size() + stampCount * digitsPerStamp;

constexpr std::uint8_t userDataUnregistered = 5; // SEI payload type
constexpr std::uint8_t trailingBits = 0x80;

// Everything in front of the stamps, from the NAL unit's length on; the same for every frame of a codec.
Bytes preamble(VideoCodec codec)
{
    const std::size_t headerSize = codec == VideoCodec::h264 ? 1 : 2;
    ByteWriter writer;
    writer.writeUInt32(static_cast<std::uint32_t>(headerSize + 2 + userDataSize + 1));
    if (codec == VideoCodec::h264)
        writer.writeUInt8(0x06); // nal_ref_idc 0, type 6 (SEI)
    else
        writer.writeUInt16(0x4E01); // type 39 (prefix SEI), layer 0, temporal id 0
    writer.writeUInt8(userDataUnregistered);
    writer.writeUInt8(userDataSize);
    for (const std::uint8_t byte : layoutUUID) writer.writeUInt8(byte);
    return std::move(writer.data);
}

void appendStamp(Bytes& bytes, std::uint32_t stamp)
{
    for (std::size_t digit = digitsPerStamp; digit-- > 0;)
        bytes.push_back(static_cast<std::uint8_t>(0x80U | (stamp >> (7 * digit) & 0x7FU)));
}

std::optional<std::uint32_t> takeStamp(ByteView& bytes)
{
    std::uint64_t stamp = 0;
    for (const std::uint8_t byte : bytes.first(digitsPerStamp)) {
        if ((byte & 0x80) == 0) return std::nullopt;
        stamp = stamp << 7 | (byte & 0x7FU);
    }
    if (stamp > UINT32_MAX) return std::nullopt;
    bytes = bytes.subspan(digitsPerStamp);
    return static_cast<std::uint32_t>(stamp);
}

} // namespace

Bytes FrameStamps::encodeSEI(VideoCodec codec) const
{
    Bytes bytes = preamble(codec);
    for (const std::uint32_t stamp : {captureMicros, convertMicros, encodeMicros, sendMicros})
        appendStamp(bytes, stamp);
    bytes.push_back(trailingBits);
    return bytes;
}

std::optional<FrameStamps> FrameStamps::parse(VideoCodec codec, ByteView accessUnit)
{
    const Bytes expected = preamble(codec);
    if (accessUnit.size() < expected.size() + stampCount * digitsPerStamp + 1) return std::nullopt;
    if (!std::equal(expected.begin(), expected.end(), accessUnit.begin())) return std::nullopt;
    ByteView rest = accessUnit.subspan(expected.size());
    FrameStamps stamps;
    for (std::uint32_t FrameStamps::* field : {&FrameStamps::captureMicros, &FrameStamps::convertMicros,
             &FrameStamps::encodeMicros, &FrameStamps::sendMicros}) {
        const auto stamp = takeStamp(rest);
        if (!stamp) return std::nullopt;
        stamps.*field = *stamp;
    }
    if (rest[0] != trailingBits) return std::nullopt;
    return stamps;
}

} // namespace pelorin
