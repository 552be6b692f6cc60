#include "PelorinCore/Pointer/ClickCounter.h"
#include "PelorinCore/Pointer/MomentumScroller.h"
#include "PelorinCore/Pointer/PointerAcceleration.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace pelorin {
namespace {

TEST(PointerAcceleration, gainFollowsTheSpeedOfTheMotion)
{
    const PointerAcceleration pointer{1.5, 2};
    constexpr double slow = 1.5; // sensitivity alone
    constexpr double quick = 1.5 * 5; // and all of the acceleration
    const struct {
        double dx, dy, dt, gain;
    } rows[] = {
        {1, 0, 0.01, slow}, // 100 points per second, the last linear speed
        {0.5, 0, 0.01, slow},
        {8, 0, 0.01, (slow + quick) / 2}, // 800, the middle of the ramp
        {15, 0, 0.01, quick}, // 1500, the first with all of it
        {-9, 12, 0.01, quick},
        {500, 0, 0.01, quick},
        {0.25, 0, 0, slow}, // a missing interval is 1/240 s: 60
        {0.25, 0, -1, slow},
        {10, 0, 0, quick},
    };
    for (const auto& [dx, dy, dt, gain] : rows) {
        const auto motion = pointer.apply(dx, dy, dt);
        EXPECT_NEAR(motion.dx, dx * gain, 1e-9) << dx << "," << dy << " in " << dt;
        EXPECT_NEAR(motion.dy, dy * gain, 1e-9) << dx << "," << dy << " in " << dt;
    }
}

TEST(PointerAcceleration, isLinearWithoutAcceleration)
{
    const PointerAcceleration pointer{2, 0};
    for (const double dx : {0.1, 5.0, 80.0, -4000.0})
        EXPECT_EQ(pointer.apply(dx, 1, 0.008), (PointerAcceleration::Motion{2 * dx, 2}));
}

TEST(PointerAcceleration, noMotionStaysNone)
{
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ((PointerAcceleration{1, 1}.apply(0, 0, 0)), PointerAcceleration::Motion{});
    EXPECT_EQ((PointerAcceleration{1, 1}.apply(nan, 1, 0.01)), PointerAcceleration::Motion{});
}

TEST(ClickCounter, countsClicksOfOneSeriesUpToThree)
{
    const struct {
        const char* why;
        double time, x, y;
        int expected;
    } clicks[] = {
        {"the first", 100, 0, 0, 1},
        {"exactly as late and as far as may be", 100.5, 3, 4, 2},
        {"measured from the click before, not from the first", 101, 6, 8, 3},
        {"a fourth is a triple click still", 101.1, 6, 8, 3},
        {"too far", 101.2, 20, 8, 1},
        {"near again", 101.3, 20, 8, 2},
        {"too late", 101.9, 20, 8, 1},
    };
    ClickCounter counter{0.5, 5};
    for (const auto& [why, time, x, y, expected] : clicks)
        EXPECT_EQ(counter.registerClick(time, x, y), expected) << why;
}

TEST(MomentumScroller, travelsTheSameWayAtAnyFrameRate)
{
    const auto velocityAfter = [](double dt, int steps) {
        MomentumScroller scroller{1000, -500, 0.998, 10};
        for (int i = 0; i < steps; ++i) scroller.step(dt);
        return scroller.velocityX;
    };
    EXPECT_NEAR(velocityAfter(0.1, 1), 1000 * std::pow(0.998, 100), 1e-9);
    EXPECT_NEAR(velocityAfter(1.0 / 60, 6), velocityAfter(1.0 / 120, 12), 1e-9);
    MomentumScroller scroller{1000, -500, 0.998, 10};
    const auto step = scroller.step(0.01);
    EXPECT_NEAR(step.dx, scroller.velocityX * 0.01, 1e-12);
    EXPECT_NEAR(step.dy, -step.dx / 2, 1e-12);
    EXPECT_FALSE(step.isFinished);
}

TEST(MomentumScroller, theStepThatFallsBelowTheMinimumScrollsNothingAndNorDoLaterOnes)
{
    MomentumScroller scroller{3, 4, 0.99, 4.9};
    EXPECT_FALSE(scroller.isStopped());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(scroller.step(0.01), (MomentumScroller::Step{0, 0, true}));
    EXPECT_TRUE(scroller.isStopped());
    const double kept = scroller.velocityX;
    scroller.step(0.01);
    EXPECT_EQ(scroller.velocityX, kept);
}

TEST(MomentumScroller, aVelocityThatIsNoNumberHasStopped)
{
    MomentumScroller scroller{std::numeric_limits<double>::quiet_NaN(), 0, 0.99, 10};
    EXPECT_TRUE(scroller.step(0.01).isFinished);
}

} // namespace
} // namespace pelorin
