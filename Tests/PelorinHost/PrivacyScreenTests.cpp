#include "PelorinHost/Screen/PrivacyScreen.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeDisplays.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(PrivacyScreen, blackensEveryDisplayEverySecondUntilItIsOff)
{
    fakes::FakeDisplays displays;
    ManualQueues queues;
    PrivacyScreen privacy(displays, queues.makeQueue("dev.pelorin.host.privacy"));
    displays.physical = {7, 8};
    privacy.setEnabled(true);
    privacy.setEnabled(true);
    ASSERT_EQ(displays.gamma.size(), 2u);
    for (const auto& [id, table] : displays.gamma) {
        EXPECT_THAT(table.red, ElementsAre(0, 0));
        EXPECT_THAT(table.green, ElementsAre(0, 0));
        EXPECT_THAT(table.blue, ElementsAre(0, 0));
    }
    displays.gamma.clear(); // as the system may
    displays.physical = {7, 9};
    queues.advance(999ms);
    EXPECT_TRUE(displays.gamma.empty());
    queues.advance(1ms);
    EXPECT_TRUE(displays.gamma.contains(7) && displays.gamma.contains(9));

    privacy.setEnabled(false);
    const int calls = displays.gammaCalls;
    queues.advance(10s);
    EXPECT_EQ(displays.gammaCalls, calls);
    EXPECT_TRUE(displays.gamma.empty());
}

} // namespace
} // namespace pelorin
