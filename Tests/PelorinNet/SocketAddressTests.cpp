#include "PelorinNet/Stun/SocketAddress.h"

#include "PelorinNet/Stun/ChannelData.h"

#include <gtest/gtest.h>
#include <unordered_set>

namespace pelorin {
namespace {

TEST(SocketAddress, readsLiteralsAndWritesThemInOneForm)
{
    const struct {
        std::string_view ip;
        std::string text; // empty: no address
        std::string host;
    } rows[] = {
        {"192.0.2.7", "192.0.2.7:3478", "192.0.2.7"},
        {"0.0.0.0", "0.0.0.0:3478", "0.0.0.0"},
        {"fe80::1:2:3:4", "[fe80:0:0:0:1:2:3:4]:3478", "fe80:0:0:0:1:2:3:4"},
        {"::", "[0:0:0:0:0:0:0:0]:3478", "0:0:0:0:0:0:0:0"},
        {"2001:DB8::0a0B", "[2001:db8:0:0:0:0:0:a0b]:3478", "2001:db8:0:0:0:0:0:a0b"},
        {"::ffff:192.0.2.7", "[0:0:0:0:0:ffff:c000:207]:3478", "0:0:0:0:0:ffff:c000:207"}, // stays IPv6
        {"192.0.2", "", ""},
        {"192.0.2.256", "", ""},
        {"192.0.2.7 ", "", ""},
        {"192.0.2.7:1", "", ""},
        {"[::1]", "", ""},
        {"fe80::1%lo", "", ""},
        {"localhost", "", ""},
        {"", "", ""},
        {std::string_view("192.0.2.7\0x", 11), "", ""},
    };
    for (const auto& row : rows) {
        const auto address = SocketAddress::parse(row.ip, 3478);
        EXPECT_EQ(address ? address->text() : "", row.text) << row.ip;
        if (!address) continue;
        EXPECT_EQ(address->hostText(), row.host);
        EXPECT_EQ(SocketAddress::parse(address->hostText(), 3478), address);
    }
}

TEST(SocketAddress, isAnotherWithAnotherFamilyByteOrPort)
{
    std::unordered_set<SocketAddress> all;
    for (const char* ip : {"0.0.0.0", "::", "1.2.3.4", "1.2.3.5", "102:304::", "::1.2.3.4"})
        for (const std::uint16_t port : {0, 1, 256, 65'535}) all.insert(*SocketAddress::parse(ip, port));
    EXPECT_EQ(all.size(), 24);
    EXPECT_TRUE(all.contains(SocketAddress::ipv4({1, 2, 3, 5}, 256)));
    std::unordered_set<std::size_t> hashes;
    for (const auto& address : all) hashes.insert(std::hash<SocketAddress>()(address));
    EXPECT_EQ(hashes.size(), 24);
}

TEST(ChannelData, isReadWithinItsRangeAndLength)
{
    const struct {
        Bytes datagram;
        std::optional<std::uint16_t> channel;
        Bytes payload;
    } rows[] = {
        {{0x40, 0x01, 0, 0}, 0x4001, {}},
        {{0x40, 0x00, 0, 1, 9}, 0x4000, {9}}, // over UDP padding may be absent
        {{0x4F, 0xFF, 0, 1, 9, 0, 0, 0}, 0x4FFF, {9}},
        {{0x40, 0x01, 0, 2, 9, 8, 7, 6, 5}, 0x4001, {9, 8}},
        {{0x50, 0x00, 0, 0}, {}, {}},
        {{0x7F, 0xFF, 0, 0}, {}, {}},
        {{0x3F, 0xFF, 0, 0}, {}, {}},
        {{0xC0, 0x00, 0, 0}, {}, {}},
        {{0x40, 0x01, 0, 1}, {}, {}},
        {{0x40, 0x01, 0xFF, 0xFF, 1, 2, 3}, {}, {}},
        {{0x40, 0x01, 0}, {}, {}},
        {{}, {}, {}},
    };
    for (const auto& row : rows) {
        const auto parsed = ChannelData::parse(row.datagram);
        ASSERT_EQ(parsed.has_value(), row.channel.has_value());
        if (!parsed) continue;
        EXPECT_EQ(parsed->channel, *row.channel);
        EXPECT_EQ(Bytes(parsed->payload.begin(), parsed->payload.end()), row.payload);
    }
}

TEST(ChannelData, isWrittenPaddedToFourBytes)
{
    EXPECT_EQ(ChannelData::frame(0x4001, {}), (Bytes{0x40, 0x01, 0, 0}));
    EXPECT_EQ(
        ChannelData::frame(0x4ABC, Bytes{1, 2, 3, 4, 5}), (Bytes{0x4A, 0xBC, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0}));
    for (const std::size_t size : {1, 2, 3, 4, 1'350, 65'535}) {
        const Bytes payload(size, 7);
        const Bytes framed = ChannelData::frame(0x4002, payload);
        EXPECT_EQ(framed.size() % 4, 0);
        EXPECT_EQ(framed.size(), ChannelData::headerSize + size + ChannelData::padding(size));
        const auto parsed = ChannelData::parse(framed).value();
        EXPECT_EQ(Bytes(parsed.payload.begin(), parsed.payload.end()), payload);
        for (std::size_t bit = 0; bit < 32; ++bit) { // of the header: another channel or length, or nothing
            Bytes flipped = framed;
            flipped[bit / 8] ^= std::uint8_t(1 << bit % 8);
            const auto other = ChannelData::parse(flipped);
            EXPECT_TRUE(!other || other->channel != parsed.channel || other->payload.size() != size);
        }
    }
    EXPECT_DEATH(ChannelData::frame(0x4000, Bytes(65'536)), "65,536");
}

} // namespace
} // namespace pelorin
