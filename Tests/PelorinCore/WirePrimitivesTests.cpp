#include "PelorinCore/Utf8.h"
#include "PelorinCore/Wire/ByteReader.h"

#include <gmock/gmock.h>

#include <limits>

namespace pelorin {
namespace {

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
