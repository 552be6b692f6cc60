#include "PelorinHost/Session/StillRefinement.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

TEST(StillRefinement, goesOnWhileThereIsSomethingToAddButNotForEver)
{
    StillRefinement refinement;
    EXPECT_EQ(refinement.sent(50'000), 150ms);
    int repeats = 0;
    for (std::optional<Duration> next = 150ms; next; ++repeats) {
        refinement.repeatAsked();
        next = refinement.sent(repeats % 4 == 3 ? 50'000 : 66);
        ASSERT_LT(repeats, 1000);
    }
    EXPECT_EQ(repeats, 50);
    EXPECT_EQ(refinement.sent(66), 150ms) << "a change begins it anew";
}

} // namespace
} // namespace pelorin
