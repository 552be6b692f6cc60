#include "PelorinCore/Utf8.h"
#include "PelorinCore/Wire/ByteReader.h"
#include "PelorinCore/Wire/ByteWriter.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

namespace pelorin {
namespace {

TEST(ByteWriter, writesBigEndianAndCountsBlobs)
{
    ByteWriter writer;
    writer.writeUInt8(0xFF);
    writer.writeUInt16(0x0102);
    writer.writeUInt32(0x03040506);
    writer.writeUInt64(0x0708090A0B0C0D0E);
    writer.writeFloat(-2);
    writer.writeBool(true);
    writer.writeBool(false);
    writer.writeString("é");
    writer.writeData({});
    EXPECT_THAT(writer.data,
        testing::ElementsAre(0xFF, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0xA, 0xB, 0xC, 0xD, 0xE, 0xC0, 0, 0, 0, 1, 0, 0,
            0, 0, 2, 0xC3, 0xA9, 0, 0, 0, 0));
}

TEST(ByteReader, readsBackEveryFloatBitForBit)
{
    using Limits = std::numeric_limits<float>;
    for (const float value : {0.0F, -0.0F, Limits::denorm_min(), Limits::max(), -Limits::infinity()}) {
        ByteWriter writer;
        writer.writeFloat(value);
        const auto read = ByteReader{writer.data}.readFloat();
        EXPECT_EQ(std::bit_cast<std::uint32_t>(*read), std::bit_cast<std::uint32_t>(value));
    }
    ByteWriter writer;
    writer.writeFloat(Limits::quiet_NaN());
    EXPECT_TRUE(std::isnan(*ByteReader{writer.data}.readFloat()));
}

TEST(ByteReader, anyByteButZeroIsTrue)
{
    const Bytes bytes{0, 1, 2, 0xFF};
    ByteReader reader{bytes};
    for (const bool expected : {false, true, true, true}) EXPECT_EQ(*reader.readBool(), expected);
    EXPECT_TRUE(reader.isAtEnd());
    EXPECT_EQ(reader.readBool().error(), ProtocolError::truncated());
}

TEST(ByteReader, refusesACountItCannotServeAndStaysWhereItWas)
{
    const Bytes bytes{1, 2, 3};
    ByteReader reader{bytes};
    ASSERT_TRUE(reader.readUInt8());
    for (const std::int64_t count : {std::int64_t{-1}, std::int64_t{3},
             std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
        EXPECT_EQ(reader.readBytes(count).error(), ProtocolError::truncated()) << count;
        EXPECT_EQ(reader.cursor, 1);
    }
    EXPECT_THAT(*reader.readBytes(2), testing::ElementsAre(2, 3));
    EXPECT_TRUE(reader.readBytes(0)->empty());
    EXPECT_TRUE(reader.isAtEnd());
}

TEST(ByteReader, aBlobLongerThanThePayloadIsTruncated)
{
    for (const Bytes& bytes : {Bytes{}, Bytes{0, 0, 0}, Bytes{0, 0, 0, 1}, Bytes{0, 0, 0, 3, 1, 2},
             Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1}}) {
        EXPECT_EQ(ByteReader{bytes}.readData().error(), ProtocolError::truncated());
        EXPECT_EQ(ByteReader{bytes}.readString().error(), ProtocolError::truncated());
    }
}

TEST(Utf8, acceptsWellFormedTextAndNothingElse)
{
    const struct {
        std::string_view text;
        bool isValid;
    } rows[] = {
        {"", true},
        {"plain ASCII, longer than a word", true},
        {std::string_view{"\0", 1}, true},
        {"\x7F", true},
        {"\xC2\x80", true}, // the smallest and largest of each length
        {"\xDF\xBF", true},
        {"\xE0\xA0\x80", true},
        {"\xED\x9F\xBF", true},
        {"\xEE\x80\x80", true},
        {"\xEF\xBF\xBF", true},
        {"\xF0\x90\x80\x80", true},
        {"\xF4\x8F\xBF\xBF", true},
        {"eight by\xE4\xB8\xAD and on: eight by", true},

        {"\xC3\x28", false},
        {"\x80", false},
        {"\xBF", false},
        {"\xC0\x80", false}, // overlong
        {"\xC1\xBF", false},
        {"\xE0\x9F\xBF", false},
        {"\xF0\x8F\xBF\xBF", false},
        {"\xED\xA0\x80", false}, // surrogates
        {"\xED\xBF\xBF", false},
        {"\xF4\x90\x80\x80", false}, // above U+10FFFF
        {"\xF5\x80\x80\x80", false},
        {"\xF8\x88\x80\x80\x80", false},
        {"\xFE", false},
        {"\xFF", false},
        {"\xC3", false}, // cut short
        {"\xE4\xB8", false},
        {"\xF0\x9F\x98", false},
        {"12345678\xC3", false},
        {"1234567\x80", false},
        {"12345678\x80", false},
        {"\xE4\xB8\xAD\xAD", false},
    };
    for (const auto& [text, isValid] : rows) EXPECT_EQ(isUtf8(text), isValid) << testing::PrintToString(text);
}

TEST(Utf8, takesOneScalarAndLeavesBadBytesAlone)
{
    std::string_view text = "a中😀\xFF";
    for (const char32_t expected : {U'a', U'中', U'😀'}) EXPECT_EQ(takeScalar(text), expected);
    EXPECT_EQ(takeScalar(text), std::nullopt);
    EXPECT_EQ(text, "\xFF");
}

} // namespace
} // namespace pelorin
