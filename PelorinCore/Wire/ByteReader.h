#pragma once

#include "PelorinCore/Result.h"
#include "PelorinCore/Wire/ProtocolError.h"

#include <bit>
#include <cstddef>
#include <iterator>
#include <utility>

namespace pelorin {

// Reads the wire's primitives from one payload, front to back. Each read advances the cursor by what it
// consumed, and fails with truncated when the payload has too little left. Views that it returns live as long
// as the payload. In the header because every field of every small input message passes through here.
class ByteReader {
public:
    explicit ByteReader(ByteView payload) : data(payload) {}

    Result<std::uint8_t, ProtocolError> readUInt8() { return readBigEndian<std::uint8_t>(); }
    Result<std::uint16_t, ProtocolError> readUInt16() { return readBigEndian<std::uint16_t>(); }
    Result<std::uint32_t, ProtocolError> readUInt32() { return readBigEndian<std::uint32_t>(); }
    Result<std::uint64_t, ProtocolError> readUInt64() { return readBigEndian<std::uint64_t>(); }
    Result<float, ProtocolError> readFloat();
    Result<bool, ProtocolError> readBool(); // any byte but 0 is true

    // A count that is negative or more than what is left is truncated and leaves the cursor where it was.
    Result<ByteView, ProtocolError> readBytes(std::int64_t count);
    Result<ByteView, ProtocolError> readData();
    // Fails with invalidValue when the bytes are not UTF-8.
    Result<std::string, ProtocolError> readString();

    bool isAtEnd() const { return cursor >= std::ssize(data); }

    ByteView data;
    std::ptrdiff_t cursor = 0; // the next unread byte

private:
    template <class Integer>
    Result<Integer, ProtocolError> readBigEndian();
};

template <class Integer>
Result<Integer, ProtocolError> ByteReader::readBigEndian()
{
    constexpr auto width = static_cast<std::ptrdiff_t>(sizeof(Integer));
    if (std::ssize(data) - cursor < width) [[unlikely]] {
        cursor = std::ssize(data); // an integer is read byte by byte, so what there was of it is gone
        return std::unexpected(ProtocolError::truncated());
    }
    Integer value = 0;
    for (const std::uint8_t* byte = data.data() + cursor; byte != data.data() + cursor + width; ++byte)
        value = static_cast<Integer>(static_cast<std::uint64_t>(value) << 8 | *byte);
    cursor += width;
    return value;
}

inline Result<float, ProtocolError> ByteReader::readFloat()
{
    auto bits = readUInt32();
    if (!bits) return std::unexpected(std::move(bits).error());
    return std::bit_cast<float>(*bits);
}

inline Result<bool, ProtocolError> ByteReader::readBool()
{
    auto byte = readUInt8();
    if (!byte) return std::unexpected(std::move(byte).error());
    return *byte != 0;
}

} // namespace pelorin
