#include "PelorinCore/Rate/BitrateController.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace pelorin {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

struct Report {
    int drops;
    double rttMs;
    std::optional<int> expected;
};

void expectReports(BitrateController controller, const std::vector<Report>& reports)
{
    for (std::size_t i = 0; i < reports.size(); ++i)
        EXPECT_EQ(controller.update(reports[i].drops, reports[i].rttMs), reports[i].expected)
            << "report " << i;
}

TEST(BitrateController, startsBetweenItsBounds)
{
    EXPECT_EQ(BitrateController(1'500'000, 20'000'000, 20'000'000).bitrate, 20'000'000);
    EXPECT_EQ(BitrateController(1'500'000, 20'000'000, 30'000'000).bitrate, 20'000'000);
    EXPECT_EQ(BitrateController(1'500'000, 20'000'000, 1).bitrate, 1'500'000);
}

TEST(BitrateController, threeCalmReportsRaiseAndOneLossCuts)
{
    expectReports({7'000'000, 20'000'000, 10'000'000},
        {{0, 50, {}}, {0, 50, {}}, {0, 50, 11'500'000}, {1, 50, 8'050'000}, {1, 50, 7'000'000}, {1, 50, {}}});
}

TEST(BitrateController, roundsHalvesAwayFromZero)
{
    expectReports({1, 100, 5}, {{1, 50, 4}, {1, 50, 3}, {1, 50, 2}, {1, 50, 1}, {1, 50, {}}}); // 3.5 is 4
    expectReports({1, 100, 10}, {{0, 50, {}}, {0, 50, {}}, {0, 50, 12}}); // 11.5 is 12
}

TEST(BitrateController, aDueRaiseAtTheCeilingSaysNothingAndCountsAnew)
{
    BitrateController controller{1'500'000, 10'000'000, 10'000'000};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(controller.update(0, 50), std::nullopt);
    EXPECT_EQ(controller.calmSeconds, 0);
    EXPECT_EQ(controller.update(1, 50), 7'000'000);
    EXPECT_EQ(controller.update(0, 50), std::nullopt);
    EXPECT_EQ(controller.update(0, 50), std::nullopt);
    EXPECT_EQ(controller.update(0, 50), 8'050'000);
}

TEST(BitrateController, neverMovesWhenItsBoundsMeet)
{
    expectReports({1'000'000, 1'000'000, 1'000'000}, {{5, 500, {}}, {0, 50, {}}, {0, 50, {}}, {0, 50, {}}});
}

TEST(BitrateController, queueingBetweenCalmAndCongestionResetsTheCalmCount)
{
    BitrateController controller{1'500'000, 20'000'000, 10'000'000};
    controller.update(0, 10);
    controller.update(0, 10);
    EXPECT_EQ(controller.calmSeconds, 2);
    EXPECT_EQ(controller.update(0, 30), std::nullopt); // 19.6 above the crept baseline
    EXPECT_EQ(controller.calmSeconds, 0);
    EXPECT_EQ(controller.update(0, 60), 7'000'000);
}

TEST(BitrateController, measuresQueueingAboveTheBaselineThatTheReportHasMoved)
{
    // A rise of r shows as 0.98 r, so the limits lie at 15/0.98 and 40/0.98 above.
    const struct {
        double rise;
        bool isCalm;
        bool isCut;
    } rises[] = {{15.30, true, false}, {15.31, false, false}, {40.81, false, false}, {40.82, false, true}};
    for (const auto& [rise, isCalm, isCut] : rises) {
        BitrateController controller{1'500'000, 20'000'000, 10'000'000};
        controller.update(0, 100);
        EXPECT_EQ(controller.update(0, 100 + rise).has_value(), isCut) << rise;
        EXPECT_EQ(controller.calmSeconds, isCalm ? 2 : 0) << rise;
    }
}

TEST(BitrateController, learnsALastingRouteChangeButHardlyNoticesASpike)
{
    BitrateController controller{1'500'000, 20'000'000, 20'000'000};
    controller.update(0, 20);
    controller.update(0, 500);
    EXPECT_NEAR(*controller.baselineRTT, 29.6, 1e-9);
    controller.update(0, 20);
    EXPECT_EQ(controller.baselineRTT, 20);
    int cuts = 0;
    for (int i = 0; i < 200; ++i)
        if (const auto changed = controller.update(0, 120); changed && i < 60) ++cuts;
    EXPECT_GT(cuts, 0);
    EXPECT_NEAR(*controller.baselineRTT, 120, 2);
    EXPECT_EQ(controller.bitrate, 20'000'000);
}

TEST(BitrateController, aRoundTripThatCannotBeOneIsNeitherCalmNorCongested)
{
    for (const double rtt : {nan, infinity, -infinity, -1.0}) {
        BitrateController controller{1'500'000, 20'000'000, 10'000'000};
        EXPECT_EQ(controller.update(0, rtt), std::nullopt) << rtt;
        EXPECT_EQ(controller.baselineRTT, std::nullopt) << rtt;
        controller.update(0, 50);
        EXPECT_EQ(controller.update(0, rtt), std::nullopt) << rtt;
        EXPECT_EQ(controller.calmSeconds, 0) << rtt;
        EXPECT_EQ(controller.baselineRTT, 50) << rtt;
        EXPECT_EQ(controller.update(1, rtt), 7'000'000) << rtt;
    }
}

TEST(BitrateController, survivesTheLargestRatesAndRoundTrips)
{
    constexpr int most = std::numeric_limits<int>::max();
    expectReports({1, most, most}, {{0, 1, {}}, {0, 1, {}}, {0, 1, {}}, {most, 1, 1'503'238'553}});
    BitrateController controller{1'000, 2'000, 2'000};
    controller.update(0, 0);
    EXPECT_EQ(controller.update(0, std::numeric_limits<double>::max()), 1'400);
    EXPECT_EQ(controller.update(0, 0), std::nullopt);
    EXPECT_EQ(controller.baselineRTT, 0);
}

} // namespace
} // namespace pelorin
