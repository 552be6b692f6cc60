#include "PelorinPhone/PhoneStatistics.h"

#include <gtest/gtest.h>

using namespace pelorin;

namespace {

TEST(Samples, givesTheNearestRank)
{
    const struct {
        std::vector<double> values;
        double fraction;
        std::optional<double> expected;
    } rows[] = {
        {{}, 0.5, std::nullopt},
        {{7}, 0, 7},
        {{7}, 1, 7},
        {{3, 1, 2}, 0.5, 2},
        {{4, 1, 3, 2}, 0.5, 2},
        {{4, 1, 3, 2}, 0.51, 3},
        {{5, 4, 3, 2, 1, 10, 9, 8, 7, 6}, 0.95, 10},
        {{5, 4, 3, 2, 1, 10, 9, 8, 7, 6}, 0.9, 9},
    };
    for (const auto& [values, fraction, expected] : rows) {
        Samples samples;
        for (const double value : values) samples.add(value);
        EXPECT_EQ(samples.percentile(fraction), expected) << values.size() << " at " << fraction;
    }
}

TEST(Samples, keepsTheLatestOfALongRun)
{
    Samples samples;
    for (std::size_t i = 0; i < Samples::capacity; ++i) samples.add(1000);
    for (std::size_t i = 0; i < Samples::capacity; ++i) samples.add(1);
    EXPECT_EQ(samples.count(), Samples::capacity);
    EXPECT_EQ(samples.percentile(1), 1);
}

TEST(PhoneStatistics, countsEachSecondAndAll)
{
    PhoneStatistics statistics;
    StageTimes times;
    times[Stage::decode] = 2;
    for (int i = 0; i < 60; ++i) {
        statistics.addArrival(25'000);
        statistics.addPicture(times, 12);
    }
    statistics.addDrop();
    auto second = statistics.takeSecond(2);
    EXPECT_EQ(second.fps, 30);
    EXPECT_EQ(second.mbps, 6);
    EXPECT_EQ(second.dropped, 1);
    EXPECT_EQ(second.ageMs, 12);
    EXPECT_EQ(second.stages[Stage::decode], 2);
    EXPECT_FALSE(second.stages[Stage::network]);

    second = statistics.takeSecond(1);
    EXPECT_EQ(second.frames, 0);
    EXPECT_FALSE(second.ageMs);
    EXPECT_EQ(statistics.total(0).fps, 0); // no time has passed, not infinitely many
    EXPECT_EQ(statistics.total(4).fps, 15);
    EXPECT_EQ(statistics.total(4).dropped, 1);
}

} // namespace
