#include "PelorinPhone/GestureShaper.h"

#include "PelorinNet/Queue/ManualQueues.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

using Click = message::MouseButtonChange;

class GestureShaperTest : public testing::Test {
protected:
    GestureShaperTest()
    {
        shaper.onMessage = [this](const Message& message) { said.push_back(message); };
    }

    // Steps of a story, each after a pause.
    void after(Duration pause, Task step)
    {
        queues.advance(pause);
        queue->post(std::move(step));
        queues.runReady();
    }
    void fingers(Duration pause, std::vector<Touch> touches)
    {
        after(pause, [this, touches = std::move(touches)] { shaper.touch(touches); });
    }
    void tap(Duration pause, std::size_t count = 1, double x = 100)
    {
        std::vector<Touch> touches;
        for (std::size_t i = 0; i < count; ++i)
            touches.push_back({static_cast<int>(i), x + 50.0 * static_cast<double>(i), 100});
        fingers(pause, touches);
        fingers(40ms, {});
    }
    template <class Kind>
    std::vector<Kind> all() const
    {
        std::vector<Kind> found;
        for (const Message& message : said)
            if (const auto* kind = std::get_if<Kind>(&message)) found.push_back(*kind);
        return found;
    }
    double movedX() const
    {
        double sum = 0;
        for (const auto& move : all<message::MouseMove>()) sum += move.dx;
        return sum;
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("session");
    GestureShaper shaper{queue};
    std::vector<Message> said;
};

TEST_F(GestureShaperTest, movesFurtherForAQuickFingerThanForASlowOne)
{
    const auto sweep = [this](Duration pause) {
        said.clear();
        fingers(1s, {{0, 0, 0}});
        for (int x = 10; x <= 100; x += 10) fingers(pause, {{0, static_cast<double>(x), 0}});
        fingers(1s, {});
        EXPECT_TRUE(all<Click>().empty());
        return movedX();
    };
    const double slow = sweep(200ms); // 50 points a second
    const double quick = sweep(5ms); // 2000 points a second
    EXPECT_NEAR(slow, 1.2 * 100, 0.01);
    EXPECT_NEAR(quick, 3 * slow, 0.01);
}

TEST_F(GestureShaperTest, clicksTheButtonOfTheFingerCount)
{
    const struct {
        std::size_t fingers;
        std::vector<Message> expected;
    } rows[] = {
        {1, {Click{MouseButton::left, true, 1}, Click{MouseButton::left, false, 1}}},
        {2, {Click{MouseButton::right, true, 1}, Click{MouseButton::right, false, 1}}},
        {3, {Click{MouseButton::middle, true, 1}, Click{MouseButton::middle, false, 1}}},
        {4, {}},
    };
    for (const auto& [count, expected] : rows) {
        said.clear();
        tap(2s, count);
        EXPECT_EQ(said, expected) << count;
    }
}

TEST_F(GestureShaperTest, countsFingersThatComeAndGoOneByOne)
{
    fingers(1s, {{0, 100, 100}});
    fingers(20ms, {{0, 100, 100}, {1, 200, 100}}); // the centre jumps, nothing moves
    fingers(20ms, {{1, 200, 100}});
    fingers(20ms, {});
    EXPECT_EQ(said,
        (std::vector<Message>{Click{MouseButton::right, true, 1}, Click{MouseButton::right, false, 1}}));
}

TEST_F(GestureShaperTest, countsQuickTapsUpToThree)
{
    for (int i = 0; i < 4; ++i) tap(100ms);
    tap(700ms);
    std::vector<int> counts;
    for (const auto& click : all<Click>())
        if (click.isDown) counts.push_back(click.clickCount);
    EXPECT_EQ(counts, (std::vector{1, 2, 3, 3, 1}));
}

TEST_F(GestureShaperTest, takesAHoldOrARollingFingerForNoTap)
{
    fingers(1s, {{0, 100, 100}});
    fingers(400ms, {});
    fingers(1s, {{0, 100, 100}});
    fingers(20ms, {{0, 110, 100}});
    fingers(20ms, {});
    EXPECT_TRUE(all<Click>().empty());
}

TEST_F(GestureShaperTest, dragsAfterATap)
{
    tap(1s);
    fingers(100ms, {{0, 100, 100}});
    fingers(20ms, {{0, 120, 100}});
    fingers(20ms, {{0, 140, 100}});
    EXPECT_EQ(all<Click>().back(), (Click{MouseButton::left, true, 2}));
    EXPECT_GT(movedX(), 20);
    fingers(20ms, {});
    EXPECT_EQ(all<Click>().back(), (Click{MouseButton::left, false, 2}));
    EXPECT_EQ(all<Click>().size(), 4U);
}

TEST_F(GestureShaperTest, letsGoOfADragThatIsTakenAway)
{
    tap(1s);
    fingers(100ms, {{0, 100, 100}});
    fingers(20ms, {{0, 140, 100}});
    after(10ms, [this] { shaper.cancelTouches(); });
    EXPECT_EQ(all<Click>().back(), (Click{MouseButton::left, false, 2}));
}

class GestureShaperScroll : public GestureShaperTest {
protected:
    void scrollBy(double step, Duration pause)
    {
        for (int i = 0; i <= 10; ++i) {
            const double y = 300 - step * i;
            fingers(pause, {{0, 100, y}, {1, 160, y}});
        }
    }
    float scrolledY(MomentumPhase phase) const
    {
        float sum = 0;
        for (const auto& scroll : all<message::Scroll>())
            if (scroll.momentum == phase) sum += scroll.dy;
        return sum;
    }
};

TEST_F(GestureShaperScroll, runsOnAfterAFlickAndFades)
{
    scrollBy(10, 10ms); // 1000 points a second
    fingers(10ms, {});
    queues.advance(10s);
    const auto scrolls = all<message::Scroll>();
    ASSERT_GT(scrolls.size(), 20U);
    EXPECT_EQ(scrolls.front().phase, ScrollPhase::began);

    // One gesture, then one momentum, each begun and ended once and in this order.
    std::vector<std::pair<ScrollPhase, MomentumPhase>> phases;
    for (const auto& scroll : scrolls)
        if (const std::pair phase{scroll.phase, scroll.momentum}; phases.empty() || phases.back() != phase)
            phases.push_back(phase);
    using enum ScrollPhase;
    EXPECT_EQ(phases,
        (std::vector<std::pair<ScrollPhase, MomentumPhase>>{{began, MomentumPhase::none},
            {changed, MomentumPhase::none}, {ended, MomentumPhase::none}, {none, MomentumPhase::began},
            {none, MomentumPhase::changed}, {none, MomentumPhase::ended}}));
    EXPECT_LT(scrolledY(MomentumPhase::changed), -200); // the way the fingers went
    for (std::size_t i = scrolls.size() - 20; i + 2 < scrolls.size(); ++i)
        EXPECT_LE(std::abs(scrolls[i + 1].dy), std::abs(scrolls[i].dy));
    const auto count = said.size();
    queues.advance(10s);
    EXPECT_EQ(said.size(), count);
}

TEST_F(GestureShaperScroll, stopsRunningOnAtATouch)
{
    scrollBy(10, 10ms);
    fingers(10ms, {});
    queues.advance(200ms);
    fingers(10ms, {{0, 100, 100}});
    EXPECT_EQ(all<message::Scroll>().back().momentum, MomentumPhase::ended);
    const auto count = said.size();
    queues.advance(2s);
    EXPECT_EQ(said.size(), count);
}

TEST_F(GestureShaperScroll, doesNotRunOnFromFingersThatStoodStillOrWereTakenAway)
{
    scrollBy(10, 10ms);
    fingers(200ms, {});
    queues.advance(2s);
    EXPECT_EQ(all<message::Scroll>().back().phase, ScrollPhase::ended);
    scrollBy(10, 10ms);
    after(10ms, [this] { shaper.cancelTouches(); });
    queues.advance(2s);
    EXPECT_EQ(all<message::Scroll>().back().phase, ScrollPhase::cancelled);
}

TEST_F(GestureShaperTest, makesOneGestureOfTheWheelsClicks)
{
    for (int i = 0; i < 3; ++i) after(100ms, [this] { shaper.turnWheel(0, -1); });
    queues.advance(1s);
    const std::vector<message::Scroll> expected{{0, 0, ScrollPhase::began, MomentumPhase::none},
        {0, -48, ScrollPhase::changed, MomentumPhase::none},
        {0, -48, ScrollPhase::changed, MomentumPhase::none},
        {0, -48, ScrollPhase::changed, MomentumPhase::none}, {0, 0, ScrollPhase::ended, MomentumPhase::none}};
    EXPECT_EQ(all<message::Scroll>(), expected);
}

TEST_F(GestureShaperTest, countsTheMousesClicksByButtonAndPlace)
{
    const auto press = [this](MouseButton button) {
        after(50ms, [this, button] {
            shaper.pressMouse(button, true);
            shaper.pressMouse(button, false);
        });
        return int{all<Click>().back().clickCount};
    };
    EXPECT_EQ(press(MouseButton::left), 1);
    EXPECT_EQ(press(MouseButton::left), 2);
    EXPECT_EQ(press(MouseButton::right), 1);
    EXPECT_EQ(press(MouseButton::left), 1);
    after(50ms, [this] { shaper.moveMouse(30, 0); });
    EXPECT_EQ(press(MouseButton::left), 1);
}

} // namespace
