#include "PelorinCore/Rate/CaptureScaler.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

constexpr int fullPixels = 2'000'000;

// The bitrates that give a pixel the limits at 2,000,000 pixels and 30 fps.
constexpr int starvesFullSize = 1'199'999;
constexpr int feedsFullSize = 1'200'000;
constexpr int growsToThreeQuarters = 1'687'501;
constexpr int growsToFullSize = 3'000'001;

CaptureScaler scalerAt(double scale)
{
    CaptureScaler scaler;
    scaler.scale = scale;
    return scaler;
}

// Feeds the bitrate until something changes and returns after how many reports it did.
int reportsUntilStep(CaptureScaler& scaler, int bitrate)
{
    for (int reports = 1; reports <= 20; ++reports)
        if (scaler.update(bitrate, fullPixels)) return reports;
    return 0;
}

TEST(CaptureScaler, stepsOneSizeAtATimeAtItsLimits)
{
    const struct {
        double scale;
        int bitrate;
        int reports; // 0: never
        double after;
    } rows[] = {
        {1, starvesFullSize, 3, 0.75},
        {1, feedsFullSize, 0, 1},
        {1, 100'000'000, 0, 1},
        {0.75, 674'999, 3, 0.5},
        {0.75, 675'000, 0, 0.75},
        {0.75, growsToFullSize, 8, 1},
        {0.75, growsToFullSize - 1, 0, 0.75},
        {0.5, 0, 0, 0.5},
        {0.5, growsToThreeQuarters, 8, 0.75},
        {0.5, growsToThreeQuarters - 1, 0, 0.5},
        {0.5, 100'000'000, 8, 0.75},
    };
    for (const auto& [scale, bitrate, reports, after] : rows) {
        CaptureScaler scaler = scalerAt(scale);
        EXPECT_EQ(reportsUntilStep(scaler, bitrate), reports) << scale << " at " << bitrate;
        EXPECT_EQ(scaler.scale, after) << scale << " at " << bitrate;
    }
}

TEST(CaptureScaler, goesAllTheWayDownAndBackUp)
{
    CaptureScaler scaler;
    EXPECT_EQ(reportsUntilStep(scaler, 100'000), 3);
    EXPECT_EQ(reportsUntilStep(scaler, 100'000), 3);
    EXPECT_EQ(scaler.scale, 0.5);
    EXPECT_EQ(reportsUntilStep(scaler, 100'000), 0);
    EXPECT_EQ(reportsUntilStep(scaler, 20'000'000), 8);
    EXPECT_EQ(reportsUntilStep(scaler, 20'000'000), 8);
    EXPECT_EQ(scaler.scale, 1);
}

TEST(CaptureScaler, oneReportInBetweenRestartsTheCount)
{
    CaptureScaler falling;
    falling.update(starvesFullSize, fullPixels);
    falling.update(starvesFullSize, fullPixels);
    falling.update(feedsFullSize, fullPixels);
    EXPECT_EQ(reportsUntilStep(falling, starvesFullSize), 3);

    CaptureScaler rising = scalerAt(0.5);
    for (int i = 0; i < 7; ++i) rising.update(growsToThreeQuarters, fullPixels);
    rising.update(growsToThreeQuarters - 1, fullPixels);
    EXPECT_EQ(reportsUntilStep(rising, growsToThreeQuarters), 8);
}

TEST(CaptureScaler, countsNothingWithoutPixelsOrBetweenTheSteps)
{
    CaptureScaler scaler;
    scaler.update(0, fullPixels);
    for (const std::int64_t pixels : {0, -1}) EXPECT_EQ(scaler.update(0, pixels), std::nullopt);
    EXPECT_EQ(scaler.lowSeconds, 1);
    CaptureScaler odd = scalerAt(0.8);
    EXPECT_EQ(reportsUntilStep(odd, 0), 0);
    EXPECT_EQ(odd.lowSeconds, 0);
}

} // namespace
} // namespace pelorin
