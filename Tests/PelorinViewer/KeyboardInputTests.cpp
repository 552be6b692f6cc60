#include "PelorinViewer/KeyboardInput.h"

#include "PelorinCore/Keys/MacKey.h"

#include <gtest/gtest.h>

using namespace pelorin;

namespace {

// Usages of the USB HID keyboard page.
constexpr int usageA = 4;
constexpr int usageLeftShift = 225;

TEST(KeyboardInput, sendsEachPressAndReleaseOnce)
{
    KeyboardInput keyboard;
    EXPECT_EQ(keyboard.press(usageA, true, keyModifier::shift),
        (message::Key{MacKey::a, true, keyModifier::shift}));
    EXPECT_FALSE(keyboard.press(usageA, true, keyModifier::shift)); // the keyboard's repetition
    EXPECT_EQ(keyboard.press(usageA, false, {}), (message::Key{MacKey::a, false, {}}));
    EXPECT_FALSE(keyboard.press(usageA, false, {})); // pressed when we did not have the keyboard
    EXPECT_FALSE(keyboard.press(0, true, {})); // no key of a Mac
}

TEST(KeyboardInput, sendsTextThatNoKeyTyped)
{
    KeyboardInput keyboard;
    EXPECT_EQ(keyboard.type("你好"), message::Text{"你好"});
    keyboard.press(usageA, true, {});
    EXPECT_FALSE(keyboard.type("a"));
    keyboard.press(usageA, false, {});
    keyboard.press(usageLeftShift, true, keyModifier::shift); // an input method's own key
    EXPECT_TRUE(keyboard.type("你"));
}

TEST(KeyboardInput, letsGoOfEverythingOnce)
{
    KeyboardInput keyboard;
    keyboard.press(usageA, true, {});
    keyboard.press(usageLeftShift, true, {});
    EXPECT_EQ(keyboard.releaseAll().size(), 2U);
    EXPECT_TRUE(keyboard.releaseAll().empty());
    EXPECT_TRUE(keyboard.press(usageA, true, {}));
}

} // namespace
