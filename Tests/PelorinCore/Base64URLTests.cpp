#include "PelorinCore/Pairing/Base64URL.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

TEST(Base64, writesAndReadsThePublishedVectors)
{
    const struct {
        std::string_view bytes, standard, url;
    } vectors[] = {
        {"", "", ""},
        {"f", "Zg==", "Zg"},
        {"fo", "Zm8=", "Zm8"},
        {"foo", "Zm9v", "Zm9v"},
        {"foob", "Zm9vYg==", "Zm9vYg"},
        {"fooba", "Zm9vYmE=", "Zm9vYmE"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
        {"\xFB\xEF\xBE\xFF", "++++/w==", "----_w"},
    };
    for (const auto& [text, standard, url] : vectors) {
        const Bytes bytes = bytesOf(text);
        EXPECT_EQ(base64EncodedString(bytes), standard);
        EXPECT_EQ(base64URLEncodedString(bytes), url);
        EXPECT_EQ(bytesFromBase64(standard), bytes);
        EXPECT_EQ(bytesFromBase64URL(url), bytes);
    }
}

TEST(Base64, carriesEveryByteAtEveryPlace)
{
    for (std::size_t size = 1; size <= 4; ++size)
        for (std::size_t place = 0; place < size; ++place)
            for (int value = 0; value < 256; ++value) {
                Bytes bytes(size, 0xA5);
                bytes[place] = static_cast<std::uint8_t>(value);
                ASSERT_EQ(bytesFromBase64(base64EncodedString(bytes)), bytes);
                ASSERT_EQ(bytesFromBase64URL(base64URLEncodedString(bytes)), bytes);
            }
}

TEST(Base64, refusesWhatNoWriterMakes)
{
    for (const std::string_view text : {"Z", "Zm9vY", "Zh", "Zm9", "Zm 8", "Zm8\n", "+w", "/w", "Zm=8", "=",
             "Zg===", "Zm9v=", "Zm8==", "\xC3\xA9g", "Zm8%3D"})
        EXPECT_FALSE(bytesFromBase64URL(text)) << text;
    EXPECT_FALSE(bytesFromBase64URL(std::string_view("Zm9\0", 4)));
    EXPECT_EQ(bytesFromBase64URL("Zg="), bytesOf("f")) << "some padding, not more than belongs there";
    EXPECT_EQ(bytesFromBase64URL("Zg=="), bytesOf("f"));

    for (const std::string_view text : {"Zg", "Zg=", "Zg===", "Zh==", "-w==", "_w==", "====", "Zm9v===="})
        EXPECT_FALSE(bytesFromBase64(text)) << text;
}

} // namespace
} // namespace pelorin
