#include "PelorinNet/Path/NetworkWatch.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Process.h"
#include "Tests/Lab/Wait.h"

#include <gtest/gtest.h>
#include <sched.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// In a network of the test's own, as the calling thread's namespace.
void watchOwnNetwork()
{
    ManualQueues queues;
    auto watch = std::make_unique<NetworkWatch>(queues.makeQueue("test"));
    int changes = 0;
    watch->onChange = [&] { ++changes; };
    const auto isSeen = [&](int count) {
        return lab::eventually([&] {
            queues.advance(100ms);
            return changes >= count;
        });
    };
    queues.advance(1h);
    EXPECT_EQ(changes, 0);

    lab::outputOf({"ip", "link", "set", "lo", "up"});
    EXPECT_TRUE(isSeen(1));
    lab::outputOf({"ip", "address", "add", "192.0.2.7/24", "dev", "lo"});
    EXPECT_TRUE(isSeen(2));
    for (int i = 1; i <= 20; ++i)
        lab::outputOf({"ip", "route", "add", "198.51.100." + std::to_string(i), "dev", "lo"});
    EXPECT_TRUE(isSeen(3));
    queues.advance(1h);
    EXPECT_EQ(changes, 3) << "one change, though of many parts";

    watch->onChange = [&] { watch.reset(); };
    lab::outputOf({"ip", "route", "del", "198.51.100.1"});
    EXPECT_TRUE(lab::eventually([&] {
        queues.advance(100ms);
        return !watch;
    }));
}

TEST(NetworkWatch, noticesAddressesAndRoutes)
{
    bool hasOwnNetwork = false;
    std::jthread([&] {
        hasOwnNetwork = ::unshare(CLONE_NEWNET) == 0;
        if (hasOwnNetwork) watchOwnNetwork();
    }).join();
    if (!hasOwnNetwork) GTEST_SKIP() << "no network of its own for the test";
}

} // namespace
} // namespace pelorin
