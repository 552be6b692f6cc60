#include "PelorinHost/Trust/SourcePenalties.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Offence = SourcePenalties::Offence;

const SteadyTime start{1h};

std::chrono::seconds blockAfter(
    SourcePenalties& penalties, int offences, SteadyTime now, Offence offence = Offence::refused)
{
    for (int i = 0; i < offences; ++i) penalties.penalize("100.64.0.2", offence, now);
    return std::chrono::ceil<std::chrono::seconds>(penalties.blockedFor("100.64.0.2", now).value_or(0s));
}

TEST(SourcePenalties, forgiveAFewFailuresAndThenTurnTheSourceAway)
{
    SourcePenalties penalties;
    EXPECT_EQ(blockAfter(penalties, 3, start), 0s);
    EXPECT_EQ(blockAfter(penalties, 1, start), 20s);
    EXPECT_EQ(penalties.blockedFor("100.64.0.2", start + 19s), 1s);
    EXPECT_EQ(penalties.blockedFor("100.64.0.2", start + 20s), std::nullopt);
    EXPECT_EQ(penalties.blockedFor("100.64.0.3", start), std::nullopt);

    SourcePenalties spread; // one failure every five seconds is paid back as it comes
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(blockAfter(spread, 1, start + i * 5s), 0s);
    SourcePenalties silent;
    EXPECT_EQ(blockAfter(silent, 1, start, Offence::noHello), 0s);
    EXPECT_EQ(blockAfter(silent, 1, start, Offence::noHello), 20s);
}

TEST(SourcePenalties, growWithEveryBlockUpToTheLongest)
{
    SourcePenalties penalties;
    auto now = start;
    std::vector<int> blocks;
    for (int i = 0; i < 9; ++i) { // comes back the moment it may, and fails until it is blocked
        std::chrono::seconds block{0};
        while (block == 0s) block = blockAfter(penalties, 1, now);
        blocks.push_back(static_cast<int>(block.count()));
        now += block;
    }
    EXPECT_EQ(blocks, (std::vector<int>{20, 20, 20, 40, 80, 160, 320, 600, 600}));
    EXPECT_EQ(blockAfter(penalties, 100, now), 600s); // offences during a block don't stretch it beyond

    EXPECT_EQ(blockAfter(penalties, 3, now + 600s + SourcePenalties::remembered), 0s); // quiet long enough
}

TEST(SourcePenalties, endWithAGoodLogin)
{
    SourcePenalties penalties;
    EXPECT_EQ(blockAfter(penalties, 10, start), 50s);
    penalties.clear("::ffff:100.64.0.2");
    EXPECT_EQ(penalties.blockedFor("100.64.0.2", start), std::nullopt);
    EXPECT_EQ(blockAfter(penalties, 3, start), 0s);
}

TEST(SourcePenalties, knowASourceByWhatItCannotChooseFreely)
{
    const struct {
        const char* offender;
        const char* other;
        bool isSame;
    } rows[] = {
        {"100.64.0.2", "::ffff:100.64.0.2", true},
        {"100.64.0.2", "::ffff:6440:2", true},
        {"100.64.0.2", "100.64.0.3", false},
        {"2001:db8:1:2::5", "2001:db8:1:2:ffff::1", true},
        {"2001:db8:1:2::5", "2001:0DB8:1:2::9", true},
        {"2001:db8:1:2::5", "2001:db8:1:3::5", false},
        {"fd7a:115c:a1e0::5", "fd7a:115c:a1e0::6", false}, // two devices of a tailnet
        {"fd7a:115c:a1e0::5", "fd7a:115c:a1e0:0:0::5", true},
        {"fe80::1%eth0", "fe80::1%eth0", true},
        {"fe80::1%eth0", "fe80::1%eth1", false},
        {"", "nonsense", false},
    };
    for (const auto& row : rows) {
        SourcePenalties penalties;
        for (int i = 0; i < 5; ++i) penalties.penalize(row.offender, Offence::handshakeFailed, start);
        EXPECT_TRUE(penalties.blockedFor(row.offender, start));
        EXPECT_EQ(penalties.blockedFor(row.other, start).has_value(), row.isSame) << row.other;
    }
}

TEST(SourcePenalties, stayBoundedAndForgetTheLeastFirst)
{
    SourcePenalties penalties;
    for (int i = 0; i < 200; ++i) penalties.penalize("100.64.0.2", Offence::refused, start);
    const auto address = [](int i) {
        return "10." + std::to_string(i >> 16) + '.' + std::to_string(i >> 8 & 0xFF) + '.'
            + std::to_string(i & 0xFF);
    };
    for (int i = 0; i < 20'000; ++i) penalties.penalize(address(i), Offence::refused, start);
    EXPECT_EQ(penalties.knownCount(), SourcePenalties::maxKnown);
    EXPECT_EQ(penalties.blockedFor("100.64.0.2", start), SourcePenalties::longest);
    EXPECT_EQ(penalties.blockedCount(start), 1u);

    penalties.penalize("10.200.0.1", Offence::refused, start + 1h);
    EXPECT_EQ(penalties.knownCount(), 1u); // all others have kept quiet since
}

TEST(SourcePenalties, letASourceHoldFewConnectionsOpen)
{
    SourcePenalties penalties;
    for (std::size_t i = 0; i < SourcePenalties::maxPending; ++i)
        EXPECT_TRUE(penalties.openPending(i % 2 ? "100.64.0.2" : "::ffff:100.64.0.2"));
    EXPECT_FALSE(penalties.openPending("100.64.0.2"));
    EXPECT_TRUE(penalties.openPending("100.64.0.3"));
    penalties.closePending("100.64.0.2");
    EXPECT_TRUE(penalties.openPending("100.64.0.2"));
    EXPECT_FALSE(penalties.openPending("100.64.0.2"));
    penalties.closePending("100.64.0.99"); // of one that has none: nothing
    for (std::size_t i = 0; i < 2 * SourcePenalties::maxPending; ++i) penalties.closePending("100.64.0.2");
    EXPECT_TRUE(penalties.openPending("100.64.0.2"));
}

} // namespace
} // namespace pelorin
