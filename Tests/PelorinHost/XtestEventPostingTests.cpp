#include "PelorinCore/Keys/MacKey.h"
#include "PelorinHost/Linux/XtestEventPosting.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/InputWindow.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace keyModifier;
using testing::ElementsAre;

struct XtestEventPostingTest : testing::Test {
    static void SetUpTestSuite() { server = std::make_unique<lab::XServer>(); }
    static void TearDownTestSuite() { server.reset(); }
    inline static std::unique_ptr<lab::XServer> server;

    ManualQueues time;
    QueueRef queue = time.makeQueue("dev.pelorin.host.session");
    lab::InputWindow window{server->display()};
    std::unique_ptr<XtestEventPosting> posting
        = std::make_unique<XtestEventPosting>(queue, server->display());

    std::vector<std::string> windowEvents()
    {
        posting->cursorLocation(); // answered after all that was posted
        return window.eventsNow();
    }
    void tap(std::uint16_t key, KeyModifiers flags = none)
    {
        posting->postKey(key, true, flags, false);
        posting->postKey(key, false, flags, false);
    }
};

TEST_F(XtestEventPostingTest, movesAndPressesWherePointed)
{
    posting->postPointer(PointerEventType::moved, {100.4, 200.6}, 0, 0);
    posting->postButton(MouseButton::left, true, {100, 201}, 1);
    posting->postPointer(PointerEventType::leftDragged, {110, 210}, 0, 0);
    posting->postButton(MouseButton::left, false, {110, 210}, 1);
    posting->postButton(MouseButton::right, true, {5, 6}, 1);
    posting->postButton(MouseButton::right, false, {5, 6}, 1);
    posting->postButton(MouseButton::middle, true, {5, 6}, 1);
    posting->postButton(MouseButton::middle, false, {1e9, -1e9}, 1);
    EXPECT_THAT(window.eventsUntil("button 2 up at 1279,0"),
        ElementsAre("motion 100,201", "button 1 down at 100,201", "motion 110,210", "button 1 up at 110,210",
            "motion 5,6", "button 3 down at 5,6", "button 3 up at 5,6", "button 2 down at 5,6",
            "motion 1279,0", "button 2 up at 1279,0"));
    EXPECT_EQ(posting->cursorLocation(), (Point{1279, 0}));
}

TEST_F(XtestEventPostingTest, scrollsByWholeClicksTowardsWhereTheContentFollows)
{
    using enum ScrollPhase;
    posting->postPointer(PointerEventType::moved, {50, 50}, 0, 0);
    window.eventsUntil("motion 50,50");
    posting->postScroll(0, 30, began, MomentumPhase::none);
    posting->postScroll(0, 30, changed, MomentumPhase::none); // 60 up: a click, 12 left over
    posting->postScroll(0, 0, ended, MomentumPhase::none); // which are dropped
    posting->postScroll(0, 40, none, MomentumPhase::began);
    posting->postScroll(-50, -90, none, MomentumPhase::changed); // 50 right, 50 down
    posting->postScroll(49, 0, none, MomentumPhase::ended); // 47 left, dropped
    posting->postScroll(48, 0, began, MomentumPhase::none);
    EXPECT_THAT(window.eventsUntil("button 6 up at 50,50"),
        ElementsAre("button 4 down at 50,50", "button 4 up at 50,50", "button 5 down at 50,50",
            "button 5 up at 50,50", "button 7 down at 50,50", "button 7 up at 50,50",
            "button 6 down at 50,50", "button 6 up at 50,50"));

    posting->postScroll(0, std::numeric_limits<int>::max(), changed, MomentumPhase::none);
    tap(MacKey::a);
    EXPECT_EQ(window.eventsUntil("key 38 up").size(), 2u * 50 + 2);
}

TEST_F(XtestEventPostingTest, sharesHeldModifiersBetweenKeys)
{
    posting->postKey(MacKey::rightShift, true, shift, true);
    tap(MacKey::a, shift); // the right shift serves
    posting->postKey(MacKey::c, true, control | shift, false);
    posting->postKey(MacKey::c, true, control | shift, false); // repeats; the server does that by itself
    posting->postKey(MacKey::v, true, control | shift, false);
    posting->postKey(MacKey::c, false, none, false); // control stays for v
    posting->postKey(MacKey::rightShift, false, none, true);
    posting->postKey(MacKey::v, false, none, false);
    posting->postKey(MacKey::v, false, none, false);
    EXPECT_THAT(window.eventsUntil("key 37 up"),
        ElementsAre("key 62 down", "key 38 down", "key 38 up", "key 37 down", "key 54 down", "key 55 down",
            "key 54 up", "key 62 up", "key 55 up", "key 37 up"));
}

TEST_F(XtestEventPostingTest, letsGoOfEverythingAtTheEnd)
{
    posting->postKey(MacKey::shift, true, shift, true);
    posting->postKey(MacKey::q, true, command, false);
    posting->postButton(MouseButton::right, true, {7, 7}, 1);
    window.eventsUntil("button 3 down at 7,7");
    posting.reset(); // without anybody's releaseAll
    EXPECT_EQ(window.pointerMask(), 0);
    EXPECT_FALSE(window.isKeyDown(24));
}

TEST_F(XtestEventPostingTest, capsLockTogglesAsTheKeyDoes)
{
    for (const int expected : {2, 0}) { // Lock in the mask
        posting->postKey(MacKey::capsLock, true, capsLock, true);
        tap(MacKey::a, capsLock); // the flag alone toggles nothing
        posting->postKey(MacKey::capsLock, false, none, true);
        window.eventsUntil("key 66 up");
        EXPECT_EQ(window.pointerMask(), expected);
    }
}

TEST_F(XtestEventPostingTest, keepsEventsBehindTextAndLetsOnlyThePointerOvertake)
{
    posting->postPointer(PointerEventType::moved, {1, 1}, 0, 0);
    posting->postUnicode(u"你好");
    posting->postKey(MacKey::returnKey, true, none, false);
    posting->postKey(MacKey::returnKey, false, none, false);
    posting->postPointer(PointerEventType::moved, {2, 2}, 0, 0); // overtakes
    posting->postButton(MouseButton::left, true, {2, 2}, 1);
    posting->postPointer(PointerEventType::leftDragged, {3, 3}, 0, 0); // would overtake its own button
    posting->postPointer(PointerEventType::leftDragged, {4, 4}, 0, 0);
    posting->postButton(MouseButton::left, false, {4, 4}, 1);
    EXPECT_THAT(windowEvents(), ElementsAre("motion 1,1", "key 8 down", "key 8 up", "motion 2,2"));
    time.advance(4ms);
    EXPECT_THAT(windowEvents(),
        ElementsAre("key 93 down", "key 93 up", "key 36 down", "key 36 up", "button 1 down at 2,2",
            "motion 4,4", "button 1 up at 4,4"));
}

TEST_F(XtestEventPostingTest, dropsWhatIsMoreThanAPhoneCouldMean)
{
    int lines = 0;
    Log::observe([&](auto...) { ++lines; });
    const std::u16string piece = u"一丁丂七丄丅丆万丈三上下丌不与丏";
    posting->postKey(MacKey::a, true, none, false);
    for (int i = 0; i < 70'000; ++i) posting->postUnicode(piece);
    posting->postKey(MacKey::b, true, none, false); // dropped as well
    posting->postKey(MacKey::a, false, none, false); // waits, or it would stay down
    EXPECT_EQ(lines, 1);
    Log::observe({});
    posting.reset();
    EXPECT_FALSE(window.isKeyDown(38));
}

TEST_F(XtestEventPostingTest, neitherBlocksNorLosesAReleaseWhenTheServerStops)
{
    lab::XServer stopped;
    XtestEventPosting patient(queue, stopped.display());
    lab::InputWindow watching(stopped.display());
    patient.postKey(MacKey::a, true, none, false);
    watching.eventsUntil("key 38 down");
    stopped.pause();
    for (int i = 0; i < 20'000; ++i) {
        patient.postPointer(PointerEventType::moved, {1.0 * (i % 500), 1}, 0, 0);
        patient.postButton(MouseButton::left, i % 2 == 0, {1, 1}, 1);
    }
    patient.postKey(MacKey::a, false, none, false);
    EXPECT_EQ(patient.cursorLocation(), std::nullopt);
    stopped.resume();
    ASSERT_TRUE(lab::eventually([&] {
        time.advance(4ms);
        return !watching.isKeyDown(38);
    }));
    EXPECT_EQ(watching.pointerMask(), 0);
}

} // namespace
} // namespace pelorin
