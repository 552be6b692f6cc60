#include "PelorinCore/Wire/ByteWriter.h"

#include <array>
#include <bit>
#include <limits>

namespace pelorin {

void ByteWriter::writeUInt8(std::uint8_t value)
{
    data.push_back(value);
}
void ByteWriter::writeUInt16(std::uint16_t value)
{
    appendBigEndian(value);
}
void ByteWriter::writeUInt32(std::uint32_t value)
{
    appendBigEndian(value);
}
void ByteWriter::writeUInt64(std::uint64_t value)
{
    appendBigEndian(value);
}
void ByteWriter::writeFloat(float value)
{
    appendBigEndian(std::bit_cast<std::uint32_t>(value));
}
void ByteWriter::writeBool(bool value)
{
    writeUInt8(value ? 1 : 0);
}

void ByteWriter::writeData(ByteView bytes)
{
    require(bytes.size() <= std::numeric_limits<std::uint32_t>::max(), "a blob fits its 32-bit count");
    writeUInt32(static_cast<std::uint32_t>(bytes.size()));
    append(bytes);
}

void ByteWriter::writeString(std::string_view utf8)
{
    writeData({reinterpret_cast<const std::uint8_t*>(utf8.data()), utf8.size()});
}

void ByteWriter::append(ByteView bytes)
{
    data.insert(data.end(), bytes.data(), bytes.data() + bytes.size());
}

template <class Integer>
void ByteWriter::appendBigEndian(Integer value)
{
    std::array<std::uint8_t, sizeof value> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[bytes.size() - 1 - i] = static_cast<std::uint8_t>(value >> (8 * i));
    append(bytes);
}

} // namespace pelorin
