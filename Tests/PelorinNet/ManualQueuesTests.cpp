#include "PelorinNet/Queue/ManualQueues.h"

#include <gmock/gmock.h>
#include <thread>

using namespace pelorin;
using namespace std::chrono_literals;
using testing::ElementsAre;

namespace {

class ManualTime : public testing::Test {
protected:
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.test");
    const QueueRef other = queues.makeQueue("dev.pelorin.other");
    const SteadyTime start = queues.now();
    std::vector<std::string> story;
    void tell(const std::string& event)
    {
        story.push_back(event + "@" + std::to_string((queues.now() - start) / 1ms));
    }
};

} // namespace

TEST_F(ManualTime, standsStillAtEachDueTimeAndRunsWhatIsPostedThereBeforeLaterTimers)
{
    const auto late = queue->after(20ms, [&] { tell("late"); });
    Subscription nested;
    const auto early = queue->after(10ms, [&] {
        tell("early");
        other->post([&] {
            tell("posted");
            nested = other->after(5ms, [&] { tell("nested"); });
        });
    });
    const auto twin = other->after(10ms, [&] { tell("twin"); });
    const auto tooLate = queue->after(31ms, [&] { tell("too late"); });
    queue->post([&] { tell("first"); });
    queues.advance(30ms);
    EXPECT_THAT(story, ElementsAre("first@0", "early@10", "twin@10", "posted@10", "nested@15", "late@20"));
    EXPECT_EQ(queues.now() - start, 30ms);
}

TEST_F(ManualTime, aStallLetsEverythingFireLateAndARepetitionOnlyOnceOnItsOldGrid)
{
    const auto repetition = queue->every(10ms, [&] { tell("tick"); });
    const auto once = queue->after(15ms, [&] { tell("once"); });
    queues.stall(37ms);
    EXPECT_THAT(story, ElementsAre("tick@37", "once@37"));
    queues.advance(23ms);
    EXPECT_THAT(story, ElementsAre("tick@37", "once@37", "tick@40", "tick@50", "tick@60"));
}

TEST_F(ManualTime, theWallClockMovesAlongAndJumpsAlone)
{
    const WallTime before = queue->wallNow();
    queues.advance(90s);
    EXPECT_EQ(queue->wallNow() - before, 90s);
    queues.jumpWall(-1h);
    EXPECT_EQ(queue->wallNow() - before, 90s - 1h);
    EXPECT_EQ(queue->now() - start, 90s);
}

TEST_F(ManualTime, takesPostsFromOtherThreads)
{
    int ran = 0;
    std::thread([&] { queue->post([&] { ++ran; }); }).join();
    queues.runReady();
    EXPECT_EQ(ran, 1);
}

TEST(ManualQueuesDeathTest, stopsTheProgramOnACallFromAnotherQueue)
{
    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.test"), other = queues.makeQueue("other");
    queue->assertCurrent(); // outside of tasks the driving thread is on every queue
    other->post([&] { queue->assertCurrent(); });
    EXPECT_DEATH(queues.runReady(), "dev.pelorin.test");
}
