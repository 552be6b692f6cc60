#include "PelorinPhone/HostClock.h"

#include <gtest/gtest.h>
#include <limits>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

const SteadyTime start{1000s};

// A host whose clock is ahead by 5,000 s, on a path of a given delay.
constexpr std::uint64_t hostStartMicros = 6'000'000'000;
std::uint64_t hostMicros(Duration sinceStart)
{
    return hostStartMicros
        + static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(sinceStart).count());
}

TEST(HostClock, knowsNothingBeforeAFrameAndARoundTrip)
{
    HostClock clock;
    EXPECT_FALSE(clock.millisecondsBetween(hostStartMicros, start));
    clock.addFrame(start, hostStartMicros);
    EXPECT_FALSE(clock.millisecondsBetween(hostStartMicros, start));
    clock.addRoundTrip(start, 10ms);
    EXPECT_TRUE(clock.millisecondsBetween(hostStartMicros, start));
}

TEST(HostClock, tellsTheTravelOfAFrameThatQueuedFromTheQuickestOne)
{
    HostClock clock;
    clock.addRoundTrip(start, 90ms);
    clock.addRoundTrip(start + 1s, 20ms); // 10 ms each way
    clock.addFrame(start + 1s + 10ms, hostMicros(1s));
    clock.addFrame(start + 2s + 45ms, hostMicros(2s)); // waited 35 ms more
    EXPECT_NEAR(*clock.millisecondsBetween(hostMicros(1s), start + 1s + 10ms), 10, 0.01);
    EXPECT_NEAR(*clock.millisecondsBetween(hostMicros(2s), start + 2s + 45ms), 45, 0.01);
}

TEST(HostClock, forgetsWhatIsOlderThanItsWindow)
{
    HostClock clock;
    clock.addRoundTrip(start, 10ms);
    clock.addFrame(start + 5ms, hostMicros(0s));
    for (int second = 1; second <= 30; ++second) { // a longer path from here on: 50 ms each way
        clock.addRoundTrip(start + std::chrono::seconds(second), 100ms);
        clock.addFrame(start + std::chrono::seconds(second) + 50ms, hostMicros(std::chrono::seconds(second)));
    }
    EXPECT_NEAR(*clock.millisecondsBetween(hostMicros(30s), start + 30s + 50ms), 50, 0.01);
}

TEST(HostClock, keepsTheLastEstimateThroughAPauseWithoutFrames)
{
    HostClock clock;
    clock.addRoundTrip(start, 10ms);
    clock.addFrame(start + 5ms, hostMicros(0s));
    EXPECT_NEAR(*clock.millisecondsBetween(hostMicros(60s), start + 60s + 5ms), 5, 0.01);
}

TEST(HostClock, bearsAnyNumberAHostMaySend)
{
    HostClock clock;
    clock.addRoundTrip(start, 10ms);
    for (const std::uint64_t micros : {std::uint64_t{0}, std::numeric_limits<std::uint64_t>::max(),
             std::uint64_t{1} << 63, std::numeric_limits<std::uint64_t>::max() / 2}) {
        clock.addFrame(start, micros);
        EXPECT_TRUE(clock.millisecondsBetween(~micros, start));
    }
}

} // namespace
