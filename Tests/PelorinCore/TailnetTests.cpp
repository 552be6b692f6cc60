#include "PelorinCore/Access/Tailnet.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <random>

using namespace pelorin;
using namespace std::string_view_literals;

TEST(Tailnet, knowsItsRangesToTheLastAddressAndNoOddSpelling)
{
    const struct {
        std::string_view text;
        bool isTailnet;
    } rows[] = {
        {"100.64.0.0", true},
        {"100.127.255.255", true},
        {"100.63.255.255", false},
        {"100.128.0.0", false},
        {"10.100.64.0", false},
        {"fd7a:115c:a1e0::", true},
        {"fd7a:115c:a1e0:ffff:ffff:ffff:ffff:ffff", true},
        {"FD7A:115C:A1E0:AB12::1", true},
        {"fd7a:115c:a1e1::", false},
        {"fd7a:115c:a1df:ffff:ffff:ffff:ffff:ffff", false},
        {"::ffff:100.64.0.1", true},
        {"::ffff:6440:1", true},
        {"0:0:0:0:0:ffff:100.100.100.100", true},
        {"::ffff:100.63.0.1", false},
        {"::100.64.0.1", false}, // IPv4-compatible, long deprecated, is another address
        {"64:ff9b::100.64.0.1", false},
        {"100.064.0.1", false},
        {"0100.64.0.1", false},
        {"100.64.1", false},
        {"1681915905", false},
        {"0x64.64.0.1", false},
        {"100.64.0.1 ", false},
        {" 100.64.0.1", false},
        {"100.64.0.1."sv, false},
        {"100.64.0.1\0"sv, false},
        {"100.64.0.1\0.example"sv, false},
        {"+100.64.0.1", false},
        {"100.64.0.256", false},
        {"100.64.0.1:7420", false},
        {"100.64.0.1%tailscale0", false},
        {"fd7a:115c:a1e0::1%tailscale0", false},
        {"[fd7a:115c:a1e0::1]", false},
        {"fd7a:115c:a1e0::1::2", false},
        {"fd7a:115c:a1e0:", false},
        {"0fd7a:115c:a1e0::1", false},
        {"fd7a:115c:a1e0::\0"sv, false},
        {"::ffff:100.064.0.1", false},
        {"", false},
        {"localhost", false},
    };
    for (const auto& row : rows) EXPECT_EQ(Tailnet::isTailnetAddress(row.text), row.isTailnet) << row.text;
}

namespace {

// What the system's own reader makes of text, IPv4 as its mapping.
std::optional<std::array<std::uint8_t, 16>> systemBytes(const std::string& text)
{
    std::array<std::uint8_t, 16> bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    if (inet_pton(AF_INET, text.c_str(), &bytes[12]) == 1) return bytes;
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
    return std::nullopt;
}

} // namespace

TEST(IPAddress, readsAndRefusesWhatTheSystemDoes)
{
    std::mt19937 random(5);
    const std::string_view pieces[]
        = {":", ":", "::", ".", "0", "1", "ffff", "a1e0", "255", "256", "00", "100.64.0.1", "g", "12345"};
    int accepted = 0;
    for (int i = 0; i < 300'000; ++i) {
        std::string text;
        for (auto count = random() % 16; count > 0; --count) text += pieces[random() % std::size(pieces)];
        const auto ours = IPAddress::parse(text);
        const auto theirs = systemBytes(text);
        ASSERT_EQ(ours.has_value(), theirs.has_value()) << text;
        if (!ours) continue;
        ++accepted;
        ASSERT_EQ(ours->bytes(), *theirs) << text;
        ASSERT_EQ(IPAddress::parse(ours->text()), ours) << text << " becomes " << ours->text();
    }
    EXPECT_GT(accepted, 300);
}

TEST(IPAddress, writesAsTheSystemDoes)
{
    std::mt19937 random(7);
    for (int i = 0; i < 50'000; ++i) {
        std::array<std::uint8_t, 16> bytes{};
        // Mostly zero groups, for runs of every length and place; never the all but dead ::1.2.3.4 notation.
        bytes[0] = 0x20;
        for (std::size_t at = 2; at < bytes.size(); at += 2)
            if (random() % 3 == 0) bytes[at + random() % 2] = static_cast<std::uint8_t>(random());
        char text[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, bytes.data(), text, sizeof text), nullptr);
        ASSERT_EQ(IPAddress::fromIPv6(bytes).text(), text);
    }
    EXPECT_EQ(IPAddress::parse("::ffff:100.64.0.1")->text(), "100.64.0.1");
    EXPECT_EQ(IPAddress::parse("::")->text(), "::");
    EXPECT_EQ(IPAddress::parse("::1")->text(), "::1");
}
