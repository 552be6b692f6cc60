#include "PelorinNet/Identity/HmacSHA256.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <string>

namespace pelorin {
namespace {

Bytes bytesOf(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

TEST(HmacSHA256, agreesWithThePublishedVectors)
{
    const struct {
        Bytes key;
        Bytes data;
        std::string code;
    } rows[] = {
        // RFC 4231, 4.2, 4.3 and 4.7
        {Bytes(20, 0x0b), bytesOf("Hi There"),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {bytesOf("Jefe"), bytesOf("what do ya want for nothing?"),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {Bytes(131, 0xaa), bytesOf("Test Using Larger Than Block-Size Key - Hash Key First"),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        {{}, {}, "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad"},
    };
    for (const auto& [key, data, code] : rows) {
        hmacSHA256(Bytes{1}, data); // whose key must not linger
        EXPECT_EQ(fmt::format("{:02x}", fmt::join(hmacSHA256(key, data), "")), code);
    }
}

} // namespace
} // namespace pelorin
