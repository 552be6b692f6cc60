#include "PelorinHost/Screen/VirtualDisplayManager.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeDisplays.h"
#include "Tests/PelorinHost/LogLines.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using fakes::FakeDisplays;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr PointSize upright{390, 844};
constexpr PointSize sideways{844, 390};
const Bytes first{1};
const Bytes second{2};

struct VirtualDisplayManagerTest : testing::Test {
    LogLines log{"display"};
    FakeDisplays displays;
    ManualQueues queues;
    std::optional<VirtualDisplayManager> manager{
        std::in_place, displays, queues.makeQueue("dev.pelorin.host.display")};
    std::vector<std::optional<std::uint32_t>> answers;

    void ask(PointSize size, const Bytes& owner = first)
    {
        manager->ensureDisplay(
            size, owner, [this](std::optional<std::uint32_t> id) { answers.push_back(id); });
    }
};

TEST(PointSizeFor, dividesTheViewportAndStaysEvenAndWithinBounds)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        Viewport viewport;
        float density;
        PointSize expected;
    } rows[] = {
        {{1170, 2532, 3}, 0, {390, 844}},
        {{2532, 1170, 3}, 0, {844, 390}},
        {{1170, 2532, 3}, 2, {586, 1266}}, // 585 lies between two even numbers and goes up
        {{1179, 2556, 3}, 0, {394, 852}},
        {{1170, 2532, 3}, 1.5, {780, 1688}},
        {{1170, 2532, 3}, -1, {390, 844}},
        {{1170, 2532, 3}, nan, {390, 844}},
        {{1170, 2532, nan}, nan, {1170, 2532}},
        {{1170, 2532, 0}, 0, {1170, 2532}},
        {{640, 360, 3}, 0, {320, 200}},
        {{0, 0, 0}, 0, {320, 200}},
        {{4'294'967'295, 4'294'967'295, 1}, 0.001F, {8192, 8192}},
        {{1170, 2532, 3}, 1e30F, {320, 200}},
    };
    for (const auto& [viewport, density, expected] : rows)
        EXPECT_EQ(pointSizeFor(viewport, density), expected)
            << viewport.widthPx << 'x' << viewport.heightPx << '@' << viewport.scale << " at " << density;
}

TEST_F(VirtualDisplayManagerTest, makesMirrorsReusesAndRemoves)
{
    ask(upright);
    EXPECT_THAT(answers, ElementsAre(101));
    EXPECT_THAT(displays.mirrorings, ElementsAre(ElementsAre(7)));
    EXPECT_THAT(log.lines, ElementsAre("virtual display 101 at 390x844 pt"));

    ask(upright, second);
    EXPECT_THAT(answers, ElementsAre(101, 101));
    EXPECT_EQ(displays.creations, 1);
    EXPECT_EQ(displays.sizes.size(), 1u);

    log.lines.clear();
    manager->release(first); // whose display it is no more
    EXPECT_EQ(displays.virtualID, 101u);
    manager->release(second);
    EXPECT_EQ(displays.virtualID, 0u);
    EXPECT_EQ(displays.restorations, 1);
    EXPECT_THAT(log.lines, ElementsAre("virtual display removed, display arrangement restored"));
    manager->release(second);
    EXPECT_EQ(displays.restorations, 1);
}

TEST_F(VirtualDisplayManagerTest, triesEightTimesToMakeOne)
{
    for (const int refusals : {1, 7, 8, 20}) {
        displays = {};
        answers.clear();
        log.lines.clear();
        displays.refusedCreations = refusals;
        ask(upright);
        for (int i = 1; i <= std::min(refusals, 7); ++i) {
            EXPECT_THAT(answers, IsEmpty()) << i;
            queues.advance(299ms);
            EXPECT_EQ(displays.creations, i);
            queues.advance(1ms);
        }
        ASSERT_EQ(answers.size(), 1u) << refusals;
        EXPECT_EQ(answers[0].has_value(), refusals < 8);
        EXPECT_EQ(displays.creations, std::min(refusals + 1, 8));
        EXPECT_EQ(log.lines[0], "virtual display not created (attempt 1); displays may still be waking");
        EXPECT_EQ(std::ranges::count(log.lines, "could not create virtual display"), refusals < 8 ? 0 : 1);
        queues.advance(10s);
        EXPECT_EQ(answers.size(), 1u);
        manager->release(first);
    }
}

TEST_F(VirtualDisplayManagerTest, triesSixTimesToMirrorAndKeepsAnExtraScreenOtherwise)
{
    displays.mirroringCodes.assign(5, 1004);
    ask(upright);
    queues.advance(1250ms);
    EXPECT_THAT(answers, ElementsAre(101));
    EXPECT_EQ(log.lines.back(), "virtual display 101 at 390x844 pt");
    manager->release(first);
    EXPECT_EQ(displays.restorations, 1);

    log.lines.clear();
    displays.listsVirtual = false;
    ask(upright);
    queues.advance(1249ms);
    EXPECT_EQ(answers.size(), 1u);
    queues.advance(1ms);
    EXPECT_THAT(answers, ElementsAre(101, 102));
    EXPECT_EQ(log.lines.at(5), "mirroring attempt 6 failed: 1000");
    EXPECT_EQ(
        log.lines.at(6), "could not mirror physical displays; the virtual display stays an extra screen");
    manager->release(first);
    EXPECT_EQ(displays.restorations, 1) << "nothing was mirrored";
}

TEST_F(VirtualDisplayManagerTest, letsALaterWishTakeTheEarliersPlace)
{
    displays.refusedCreations = 2;
    ask(upright, first);
    ask(sideways, second);
    EXPECT_THAT(answers, ElementsAre(std::nullopt));
    queues.advance(300ms);
    EXPECT_THAT(answers, ElementsAre(std::nullopt, 103));
    EXPECT_THAT(displays.sizes, ElementsAre(sideways));
    queues.advance(10s);
    EXPECT_EQ(displays.creations, 3);

    displays.mirroringCodes.assign(2, 1);
    ask(upright, second);
    ask(upright, second); // while mirroring is being tried again
    EXPECT_EQ(answers.size(), 3u);
    queues.advance(250ms);
    EXPECT_THAT(answers, ElementsAre(std::nullopt, 103, std::nullopt, 103));
}

} // namespace
} // namespace pelorin
