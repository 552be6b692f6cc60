#include "PelorinHost/Screen/FramePacer.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// When pictures are taken of a screen that changes at these times.
std::vector<SteadyTime> picturesOf(const std::vector<SteadyTime>& changes, int maxFrameRate)
{
    FramePacer pacer(maxFrameRate);
    std::vector<SteadyTime> pictures;
    for (const auto change : changes) {
        if (!pictures.empty() && change <= pictures.back()) continue; // the picture shows it already
        pictures.push_back(std::max(change, pacer.nextPicture()));
        pacer.taken(pictures.back());
    }
    return pictures;
}

TEST(FramePacer, takesEachPictureOfAnUnevenApplicationAtItsFullRate)
{
    std::minstd_rand random(4);
    std::vector<SteadyTime> changes;
    for (int i = 0; i < 600; ++i)
        changes.push_back(SteadyTime(i * 1'000'000us / 60 + std::chrono::microseconds(random() % 7000)));
    EXPECT_EQ(picturesOf(changes, 60).size(), changes.size());
}

TEST(FramePacer, holdsTheRateWhateverChanges)
{
    for (const int rate : {1, 30, 60, 144}) {
        std::vector<SteadyTime> changes;
        for (int i = 0; i < 10'000; ++i) changes.push_back(SteadyTime(i * 1ms));
        const auto count = picturesOf(changes, rate).size();
        EXPECT_LE(count, 10U * static_cast<unsigned>(rate) + 2); // one at each end
        EXPECT_GE(count, 10U * static_cast<unsigned>(rate) * 95 / 100);
    }
}

} // namespace
} // namespace pelorin
