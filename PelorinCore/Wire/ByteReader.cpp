#include "PelorinCore/Wire/ByteReader.h"

#include "PelorinCore/Utf8.h"

namespace pelorin {

Result<ByteView, ProtocolError> ByteReader::readBytes(std::int64_t count)
{
    if (count < 0 || count > std::ssize(data) - cursor) return std::unexpected(ProtocolError::truncated());
    const ByteView bytes = data.subspan(static_cast<std::size_t>(cursor), static_cast<std::size_t>(count));
    cursor += static_cast<std::ptrdiff_t>(count);
    return bytes;
}

Result<ByteView, ProtocolError> ByteReader::readData()
{
    auto count = readUInt32();
    if (!count) return std::unexpected(std::move(count).error());
    return readBytes(*count);
}

Result<std::string, ProtocolError> ByteReader::readString()
{
    auto bytes = readData();
    if (!bytes) return std::unexpected(std::move(bytes).error());
    const std::string_view text{reinterpret_cast<const char*>(bytes->data()), bytes->size()};
    if (!isUtf8(text)) return std::unexpected(ProtocolError::invalidValue("string is not UTF-8"));
    return std::string{text};
}

} // namespace pelorin
