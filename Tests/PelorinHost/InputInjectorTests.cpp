#include "PelorinHost/Input/InputInjector.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeDisplayBounds.h"
#include "Tests/Fakes/RecordingEventPosting.h"

#include <cmath>
#include <gmock/gmock.h>
#include <limits>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();

struct InputInjectorTest : testing::Test {
    ManualQueues time;
    QueueRef queue = time.makeQueue("dev.pelorin.host.session");
    fakes::RecordingEventPosting posting;
    fakes::FakeDisplayBounds displays;
    std::optional<InputInjector> injector{std::in_place, posting, displays, *queue};

    std::vector<std::string> events() { return posting.takeEvents(); }
};

TEST_F(InputInjectorTest, movesOnFromItsOwnLastPositionUntilTheDesktopIsTheBetterSource)
{
    posting.followsPointer = false; // as a desktop that lags behind
    posting.cursor = Point{100, 100};
    injector->move(10, 0);
    time.advance(249ms);
    injector->move(0.5, -10.5);
    EXPECT_THAT(events(), ElementsAre("moved to 110,100 by 10,0", "moved to 110.5,89.5 by 1,-11"));
    EXPECT_EQ(injector->pointerState().recentlyPosted, (Point{110.5, 89.5}));

    time.advance(250ms);
    EXPECT_EQ(injector->pointerState().recentlyPosted, std::nullopt);
    injector->move(1, 1);
    EXPECT_THAT(events(), ElementsAre("moved to 101,101 by 1,1"));
    EXPECT_EQ(injector->pointerState().appliedMoves, 3u);

    time.advance(1s);
    posting.cursor = {};
    injector->move(3, 4);
    EXPECT_THAT(events(), ElementsAre("moved to 3,4 by 3,4"));
}

TEST_F(InputInjectorTest, keepsThePointerOnTheDisplays)
{
    displays.displays = {{1, {0, 0, 1000, 500}}, {2, {1000, 100, 800, 600}}, {3, {}}};
    const struct {
        std::optional<std::uint32_t> display;
        Point from;
        Delta by;
        Point expected;
    } rows[] = {
        {1, {900, 200}, {1e300, 0}, {999, 200}}, {1, {0, 0}, {-1, -1}, {0, 0}},
        {1, {1500, 650}, {0, 0}, {999, 499}}, // confined only now
        {2, {1000, 100}, {-30, 700}, {1000, 699}}, {3, {10, 10}, {5000, 1}, {5010, 11}}, // an empty display
        {7, {10, 10}, {5000, 1}, {5010, 11}}, // no such display
        {{}, {990, 200}, {20, 0}, {1010, 200}}, // across to the neighbour
        {{}, {990, 50}, {20, 0}, {999, 50}}, // where there is none
        {{}, {1700, 600}, {500, 500}, {1799, 699}},
        {{}, {5000, 5000}, {1, 1}, {999, 499}}, // lost, and back on the main display
    };
    for (const auto& row : rows) {
        time.advance(1s);
        posting.cursor = row.from;
        injector->confineTo(row.display);
        injector->move(row.by.dx, row.by.dy);
        EXPECT_EQ(injector->pointerState().recentlyPosted, row.expected) << row.from.x << ' ' << row.by.dx;
    }
    displays.displays.clear();
    injector->confineTo({});
    injector->move(-2000, 0);
    EXPECT_EQ(injector->pointerState().recentlyPosted, (Point{-1001, 499}));
}

TEST_F(InputInjectorTest, ignoresMotionThatIsNoNumberAndClampsWhatNoDesktopHas)
{
    const double bad[] = {nan, infinite, -infinite};
    for (const double b : bad) {
        injector->move(b, 1);
        injector->move(1, b);
        injector->scroll(b, 1, ScrollPhase::changed, MomentumPhase::none);
        injector->scroll(1, b, ScrollPhase::changed, MomentumPhase::none);
    }
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_EQ(injector->pointerState().appliedMoves, 0u);

    injector->move(3e38, -3e38);
    injector->scroll(3e38, -3e38, ScrollPhase::changed, MomentumPhase::none);
    injector->scroll(0, 0, ScrollPhase::changed, MomentumPhase::none);
    EXPECT_THAT(events(),
        ElementsAre("moved to 1279,0 by 2147483647,-2147483648",
            "scroll 2147483647,-2147483648 phase 2 momentum 0", "scroll 0,0 phase 2 momentum 0"));
}

TEST_F(InputInjectorTest, dragsWithTheFirstHeldOfLeftRightMiddle)
{
    injector->button(MouseButton::middle, true, 1);
    injector->move(1, 0);
    injector->button(MouseButton::right, true, 0);
    injector->move(1, 0);
    injector->button(MouseButton::left, true, 3);
    injector->move(1, 0);
    injector->button(MouseButton::left, false, 3);
    injector->move(1, 0);
    EXPECT_THAT(events(),
        ElementsAre("middle down 1 at 0,0", "otherDragged to 1,0 by 1,0", "right down 1 at 1,0",
            "rightDragged to 2,0 by 1,0", "left down 3 at 2,0", "leftDragged to 3,0 by 1,0",
            "left up 3 at 3,0", "rightDragged to 4,0 by 1,0"));
}

TEST_F(InputInjectorTest, scrollsByWholePixelsAndDropsTheRestAtTheEndOfAGesture)
{
    using enum ScrollPhase;
    const struct {
        double dx, dy;
        ScrollPhase phase;
        MomentumPhase momentum;
        const char* expected;
    } rows[] = {
        {0, 0.4, began, MomentumPhase::none, "scroll 0,0 phase 1 momentum 0"},
        {0, 0.4, changed, MomentumPhase::none, "scroll 0,0 phase 2 momentum 0"},
        {0, 0.4, changed, MomentumPhase::none, "scroll 0,1 phase 2 momentum 0"},
        {-0.9, 0.7, ended, MomentumPhase::none, "scroll 0,0 phase 3 momentum 0"},
        {-0.9, 0.7, none, MomentumPhase::began, "scroll 0,0 phase 0 momentum 1"},
        {-0.9, 0.7, none, MomentumPhase::changed, "scroll -1,1 phase 0 momentum 2"},
        {-0.1, 0.5, none, MomentumPhase::ended, "scroll 0,0 phase 0 momentum 3"},
        {-0.9, 0.9, began, MomentumPhase::none, "scroll 0,0 phase 1 momentum 0"},
        {-0.9, 0.9, cancelled, MomentumPhase::none, "scroll -1,1 phase 4 momentum 0"},
        {-0.9, 0.9, none, MomentumPhase::none, "scroll 0,0 phase 0 momentum 0"},
    };
    for (const auto& row : rows) {
        injector->scroll(row.dx, row.dy, row.phase, row.momentum);
        EXPECT_THAT(events(), ElementsAre(row.expected));
    }
}

TEST_F(InputInjectorTest, unitesTheFlagsOfAKeyWithThoseOfTheModifiersHeld)
{
    injector->key(56, true, keyModifier::none);
    injector->key(55, true, keyModifier::capsLock);
    injector->key(21, true, keyModifier::none);
    injector->key(21, true, keyModifier::option); // repeats
    injector->key(21, false, keyModifier::none);
    injector->key(60, true, keyModifier::none);
    injector->key(56, false, keyModifier::none); // the right shift is still down
    injector->key(60, false, keyModifier::shift);
    EXPECT_THAT(events(),
        ElementsAre("key 56 down flags 1 modifier", "key 55 down flags 25 modifier", "key 21 down flags 9",
            "key 21 down flags 13", "key 21 up flags 9", "key 60 down flags 9 modifier",
            "key 56 up flags 9 modifier", "key 60 up flags 9 modifier"));
}

TEST_F(InputInjectorTest, releasesAllThatItHoldsAndOnlyThat)
{
    injector->button(MouseButton::right, true, 2);
    injector->button(MouseButton::left, true, 2);
    injector->button(MouseButton::left, false, 2);
    injector->key(55, true, keyModifier::none);
    injector->key(0, true, keyModifier::none);
    injector->key(1, true, keyModifier::none);
    injector->key(1, false, keyModifier::none);
    events();

    injector.reset();
    EXPECT_THAT(events(), ElementsAre("right up 1 at 0,0", "key 0 up flags 8", "key 55 up flags 0 modifier"));

    injector.emplace(posting, displays, *queue);
    injector->button(MouseButton::right, true, 1);
    injector->releaseAll();
    events();
    injector->releaseAll();
    injector.reset();
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(InputInjectorTest, typesTextInPiecesOfSixteenUnitsAndLinesWithReturn)
{
    using Events = std::vector<std::string>;
    const std::string returnDown = "key 36 down flags 0";
    const std::string returnUp = "key 36 up flags 0";
    const struct {
        std::string text;
        Events expected;
    } rows[] = {
        {"", {}}, {"ab\ncd", {"text ab", returnDown, returnUp, "text cd"}},
        {"ab\r\n\n", {"text ab", returnDown, returnUp, returnDown, returnUp}}, {"a\rb", {"text a\rb"}},
        {"0123456789abcdef", {"text 0123456789abcdef"}},
        {"0123456789abcdefg", {"text 0123456789abcdef", "text g"}},
        // No surrogate pair is ever torn apart.
        {"0123456789abcde😀", {"text 0123456789abcde", "text \\d83d\\de00"}},
        {"你\u00e4", {"text \\4f60\\00e4"}},
        {"ab\xff"
         "cd",
            {"text ab"}},
        {"\xed\xa0\x80", {}}, // a surrogate
    };
    for (const auto& row : rows) {
        injector->typeText(row.text);
        EXPECT_EQ(events(), row.expected) << row.text;
    }
}

} // namespace
} // namespace pelorin
