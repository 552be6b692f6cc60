#include "PelorinViewer/Script.h"

#include "PelorinCore/Keys/MacKey.h"

#include <gtest/gtest.h>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

using Action = decltype(ScriptStep::action);

Action sends(std::vector<Message> messages)
{
    return scriptStep::Send{std::move(messages)};
}

TEST(Script, readsEveryCommand)
{
    using message::Key;
    using message::MouseMove;
    using Click = message::MouseButtonChange;
    const struct {
        std::string_view line;
        Action expected;
    } rows[] = {
        {"wait 250", scriptStep::Wait{250ms}},
        {"  wait\t1.5s  ", scriptStep::Wait{1500ms}},
        {"move -3.5 4", sends({MouseMove{-3.5F, 4}})},
        {"moveto 10 20", sends({MouseMove{-32768, -32768}, MouseMove{10, 20}})},
        {"click right", sends({Click{MouseButton::right, true, 1}, Click{MouseButton::right, false, 1}})},
        {"click left 2",
            sends({Click{MouseButton::left, true, 1}, Click{MouseButton::left, false, 1},
                Click{MouseButton::left, true, 2}, Click{MouseButton::left, false, 2}})},
        {"down middle", sends({Click{MouseButton::middle, true, 1}})},
        {"up middle", sends({Click{MouseButton::middle, false, 1}})},
        {"scroll 0 -120",
            sends({message::Scroll{0, 0, ScrollPhase::began, MomentumPhase::none},
                message::Scroll{0, -120, ScrollPhase::changed, MomentumPhase::none},
                message::Scroll{0, 0, ScrollPhase::ended, MomentumPhase::none}})},
        {"key shift + a",
            sends({Key{MacKey::a, true, keyModifier::shift}, Key{MacKey::a, false, keyModifier::shift}})},
        {"keydown shift", sends({Key{MacKey::shift, true, keyModifier::shift}})},
        {"keyup shift", sends({Key{MacKey::shift, false, keyModifier::none}})},
        {"keydown f5", sends({Key{MacKey::f5, true, keyModifier::none}})},
        {"text echo '你好'  # no comment", sends({message::Text{"echo '你好'  # no comment"}})},
        {R"(text a\tb\\n\n\q)", sends({message::Text{"a\tb\\n\n\\q"}})},
        {"paste two words", sends({message::PasteText{"two words", true}})},
        {"expect change 2", scriptStep::ExpectChange{2s}},
        {"expect change 300ms", scriptStep::ExpectChange{300ms}},
        {"expect still 500", scriptStep::ExpectStill{500ms}},
        {"screenshot a b.png", scriptStep::Screenshot{"a b.png"}},
        {"viewport 1170x2532@3", sends({message::SetViewport{{1170, 2532, 3}}})},
        {"quit", scriptStep::Quit{}},
    };
    for (const auto& [line, expected] : rows) {
        const auto steps = parseScript(line);
        ASSERT_TRUE(steps) << line << ": " << steps.error().text;
        ASSERT_EQ(steps->size(), 1U) << line;
        EXPECT_EQ(steps->front().action, expected) << line;
    }
}

TEST(Script, refusesWhatItDoesNotKnow)
{
    for (const std::string_view line :
        {"jump", "wait", "wait x", "wait -1", "wait nan", "wait 1e300", "wait 1 2", "move 1", "move 1 inf",
            "moveto a b", "click", "click both", "click left 0", "click left 4", "click left 1.5", "down",
            "scroll 1", "key", "key hyper+a", "keydown", "expect", "expect rain 1", "expect change",
            "screenshot", "viewport 12", "viewport 0x5", "quit now", "text \xC3\x28"})
        EXPECT_FALSE(parseScript(line)) << line;
}

TEST(Script, countsLinesPastCommentsAndBlanks)
{
    const auto steps = parseScript("# a comment\r\n\r\n  wait 1\r\n\tquit");
    ASSERT_TRUE(steps);
    ASSERT_EQ(steps->size(), 2U);
    EXPECT_EQ(steps->at(0).line, 3);
    EXPECT_EQ(steps->at(1).line, 4);
    EXPECT_EQ(parseScript("wait 1\n\nnonsense").error(), (ScriptError{3, "unknown command \"nonsense\""}));
    EXPECT_TRUE(parseScript("")->empty());
}

} // namespace
