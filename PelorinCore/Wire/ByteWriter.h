#pragma once

#include "PelorinCore/Result.h"

#include <string_view>

namespace pelorin {

// Appends the wire's primitives to data: integers big-endian, floats as their bit pattern, blobs and strings
// behind a 32-bit byte count. Never fails; a blob too long for its count is our own broken promise.
class ByteWriter {
public:
    void writeUInt8(std::uint8_t value);
    void writeUInt16(std::uint16_t value);
    void writeUInt32(std::uint32_t value);
    void writeUInt64(std::uint64_t value);
    void writeFloat(float value);
    void writeBool(bool value);
    void writeData(ByteView bytes);
    void writeString(std::string_view utf8);

    Bytes data;

private:
    void append(ByteView bytes);
    template <class Integer>
    void appendBigEndian(Integer value);
};

} // namespace pelorin
