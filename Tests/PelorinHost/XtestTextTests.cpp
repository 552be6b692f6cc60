#include "PelorinCore/Keys/KeyMapping.h"
#include "PelorinCore/Keys/MacKey.h"
#include "PelorinHost/Input/InputInjector.h"
#include "PelorinHost/Linux/XtestEventPosting.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Fakes/FakeDisplayBounds.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <algorithm>
#include <fmt/format.h>
#include <future>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace keyModifier;

// A phone at a desktop whose one application is a terminal that writes what is typed, line by line, to a
// file. Real time: the terminal looks keys up at its own pace.
struct XtestTextTest : testing::Test {
    lab::XServer server;
    lab::TemporaryFolder folder;
    const std::string mappingBefore = keyboardMapping();
    std::unique_ptr<lab::Process> terminal;

    QueuePool pool{1};
    QueueRef queue = pool.makeQueue("dev.pelorin.host.session");
    fakes::FakeDisplayBounds displays;
    std::unique_ptr<XtestEventPosting> posting;
    std::unique_ptr<InputInjector> injector;

    ~XtestTextTest() override { endSession(); }

    std::string keyboardMapping() const { return server.run({"xmodmap", "-pke"}); }

    void openTerminal(const std::string& command)
    {
        const auto ready = folder.path() / "ready";
        terminal = server.launch({"env", "LC_ALL=C.UTF-8", "xterm", "-u8", "-geometry", "150x40+0+0", "-e",
            "sh", "-c", "cd " + folder.path().string() + "; stty -ixon; " + "touch ready; " + command});
        ASSERT_TRUE(lab::eventually([&] { return std::filesystem::exists(ready); }));
    }

    template <class Action>
    void onQueue(Action action)
    {
        std::promise<void> done;
        queue->post([&] {
            action();
            done.set_value();
        });
        done.get_future().wait();
    }

    void beginSession()
    {
        onQueue([&] {
            posting = std::make_unique<XtestEventPosting>(queue, server.display());
            injector = std::make_unique<InputInjector>(*posting, displays, *queue);
            injector->move(-300, -200); // the focus follows the pointer: there is no window manager
        });
    }
    void endSession()
    {
        onQueue([&] {
            injector.reset();
            posting.reset();
        });
    }
    void type(const std::string& text)
    {
        onQueue([&] { injector->typeText(text); });
    }

    std::string typed() const { return lab::contentOf(folder.path() / "typed"); }
    // What the file holds once it ends with that.
    std::string typedUntil(const std::string& end) const
    {
        lab::eventually([&] { return typed().ends_with(end); });
        return typed();
    }
};

// Where two texts part, in a few characters; empty when they don't.
std::string difference(const std::string& actual, const std::string& expected)
{
    if (actual == expected) return {};
    const auto at = static_cast<std::size_t>(std::ranges::mismatch(actual, expected).in1 - actual.begin());
    const auto from = at < 12 ? 0 : at - 12;
    return fmt::format("at {}: \"{}\" instead of \"{}\"; {} bytes instead of {}", at,
        actual.substr(std::min(from, actual.size()), 30), expected.substr(from, 30), actual.size(),
        expected.size());
}

// One of some 20,000 characters that no keyboard has.
std::string chinese(int index)
{
    const int c = 0x4E00 + index;
    return {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
        static_cast<char>(0x80 | (c & 0x3F))};
}

TEST_F(XtestTextTest, typesAllWritingsIntoATerminalAndLeavesTheKeyboardAsItWas)
{
    openTerminal("cat > typed");
    beginSession();
    const std::string first = "Grüße aus Köln, 5 € für ein „Zitat“ – ça va?\tnaïve [x]\\{y} ~@#\n"
                              "你好，世界！这是一个测试。\nПривет, мир! Ελληνικά ελληνικά\n"
                              "emoji: 😀👍🏽👨‍👩‍👧 done\n";
    type(first);
    EXPECT_EQ(difference(typedUntil("done\n"), first), "");

    // Many more characters than there are spare keycodes, none of them twice. A line is short enough for the
    // spares, so that a terminal that a busy machine holds up still reads it right.
    std::string expected = first;
    for (int line = 0; line < 40; ++line) {
        std::string text;
        for (int c = 0; c < 12; ++c) text += chinese(line * 12 + c);
        type(text + "\n");
        expected += text + "\n";
        ASSERT_EQ(difference(typedUntil(expected), expected), "");
    }

    endSession(); // leaves what was typed last to applications that still look it up
    XtestEventPosting::tidy(server.display());
    EXPECT_EQ(keyboardMapping(), mappingBefore);
}

TEST_F(XtestTextTest, keysAreAtTheirPlacesOnTheLayoutAndTextIsTextOnAnyLayout)
{
    server.run({"setxkbmap", "us"});
    openTerminal("cat > typed");
    beginSession();
    const auto press = [&](std::initializer_list<std::uint16_t> keys, KeyModifiers modifiers) {
        onQueue([&] {
            for (const auto key : keys) {
                injector->key(key, true, modifiers);
                injector->key(key, false, modifiers);
            }
        });
    };
    const std::initializer_list<std::uint16_t> places{MacKey::l, MacKey::s, MacKey::z, MacKey::semicolon,
        MacKey::minus, MacKey::isoSection, MacKey::keypadDivide, MacKey::digit7};
    const std::string text = "[za] ä好@{€} ls\n";
    const auto line = [&] {
        press(places, none);
        press(places, shift);
        type(" " + text);
    };
    std::string expected = "lsz;-</7LSZ:_>/& " + text;
    line();
    EXPECT_EQ(difference(typedUntil(text), expected), "");

    server.run({"setxkbmap", "de"}); // which takes our spare keycodes along
    line();
    expected += "lsyöß</7LSYÖ?>// " + text;
    EXPECT_EQ(difference(typedUntil(expected), expected), "");
}

TEST_F(XtestTextTest, neitherHeldShiftNorLocksNorTheOtherLayoutChangeText)
{
    server.run({"setxkbmap", "us,ru", "-option", "grp:sclk_toggle"});
    openTerminal("cat > typed");
    beginSession();
    const std::string text = "aB1! äÖ好 привет МИР\n";
    std::string expected;
    const auto check = [&](const char* state) {
        type(text);
        expected += text;
        EXPECT_EQ(difference(typedUntil(expected), expected), "") << state;
    };
    const auto key
        = [&](std::uint16_t code, bool isDown) { onQueue([&] { injector->key(code, isDown, none); }); };

    key(MacKey::rightShift, true);
    check("shift held");
    key(MacKey::rightShift, false);
    check("shift released");
    for (const auto lock :
        {MacKey::capsLock, MacKey::f14}) { // Caps Lock, then Scroll Lock: the Russian layout
        key(lock, true);
        key(lock, false);
        check(lock == MacKey::f14 ? "second layout" : "caps lock");
        key(lock, true);
        key(lock, false);
    }
    check("none");
}

TEST_F(XtestTextTest, sessionsThatEndInTheMiddleOfTypingLeaveNothingBehindForGood)
{
    openTerminal("cat > typed");
    std::string expected;
    for (int session = 0; session < 4; ++session) {
        beginSession();
        std::string text;
        for (int c = 0; c < 30; ++c) text += chinese(session * 30 + c);
        onQueue([&] { // away with the line that the session before left unfinished
            injector->key(MacKey::u, true, control);
            injector->key(MacKey::u, false, control);
        });
        type(text + "\n");
        expected += text + "\n";
        EXPECT_EQ(difference(typedUntil(expected), expected), "");
        type(text + "\n");
        endSession(); // as when the phone vanishes
        EXPECT_EQ(difference(typed(), expected), "");
    }
    XtestEventPosting::tidy(server.display());
    EXPECT_EQ(keyboardMapping(), mappingBefore);
}

} // namespace
} // namespace pelorin
