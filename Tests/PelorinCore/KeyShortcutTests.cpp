#include "PelorinCore/Keys/KeyShortcut.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace keyModifier;

TEST(KeyShortcut, readsCombinations)
{
    const struct {
        const char* combination;
        int keyCode;
        KeyModifiers modifiers;
    } rows[] = {
        {"cmd+shift+4", 21, command | shift},
        {"CTRL + Up", 126, control},
        {"\topt\t+\tFORWARDDELETE ", 117, option},
        {"command+control+option+alt+fn+x", 7, command | control | option | function},
        {"⌘⇧", -1, none},
        {"⌘+⇧+⌥+⌃+a", 0, command | shift | option | control},
        {"f1", 122, none},
        {"f11", 103, none},
        {"F20", 90, none},
        {"f", 3, none},
        {"Enter", 36, none},
        {"esc", 53, none},
        {"backspace", 51, none},
        {"delete", 51, none},
        {"cmd+a", 0, command},
        {"cmd+A", 0, command | shift},
        {"CMD+?", 44, command | shift},
        {"cmd+=", 24, command},
        {"++cmd++a++", 0, command},
        {"shift+!", 18, shift},
        {"ctrl+\u212A", 40, control | shift},

        {"", -1, none},
        {"+", -1, none},
        {" ", -1, none},
        {"cmd+", -1, none},
        {"cmd+ ", -1, none},
        {"cmd+ +a", -1, none},
        {"cmd++", -1, none},
        {"hyper+a", -1, none},
        {"a+cmd+b", -1, none},
        {"f0", -1, none},
        {"f21", -1, none},
        {"f01", -1, none},
        {"cmd+ab", -1, none},
        {"cmd+中", -1, none},
        {"cmd+\xC3", -1, none},
        {"cmd+a\xFF", -1, none},
        {"cmd shift+a", -1, none},
    };
    for (const auto& [combination, keyCode, modifiers] : rows) {
        const auto shortcut = KeyShortcut::parse(combination);
        ASSERT_EQ(shortcut.has_value(), keyCode >= 0) << combination;
        if (!shortcut) continue;
        EXPECT_EQ(shortcut->keyCode, keyCode) << combination;
        EXPECT_EQ(shortcut->modifiers, modifiers) << combination;
        EXPECT_EQ(shortcut->title, combination);
    }
}

TEST(KeyShortcut, everyFunctionKeyHasItsCode)
{
    const int codes[]{
        122, 120, 99, 118, 96, 97, 98, 100, 101, 109, 103, 111, 105, 107, 113, 106, 64, 79, 80, 90};
    for (int number = 1; number <= 20; ++number)
        EXPECT_EQ(KeyShortcut::parse("f" + std::to_string(number))->keyCode, codes[number - 1]) << number;
}

TEST(KeyShortcut, readsAListLineByLineAndSkipsWhatIsNone)
{
    const auto shortcuts = KeyShortcut::parseList("Zoom in = cmd+=\r\n"
                                                  "\n"
                                                  "no combination\n"
                                                  "=cmd+a\n"
                                                  " \t= cmd+a\n"
                                                  "unknown=hyper+a\n"
                                                  "empty=\v"
                                                  "  中 文\t=\tf1\f"
                                                  "A=a\u0085"
                                                  "B=b\u2028"
                                                  "C=c\u2029"
                                                  "last==");
    const std::vector<KeyShortcut> expected{{"Zoom in", 24, command}, {"中 文", 122, none}, {"A", 0, none},
        {"B", 11, none}, {"C", 8, none}, {"last", 24, none}};
    EXPECT_EQ(shortcuts, expected);
    EXPECT_THAT(KeyShortcut::parseList(""), testing::IsEmpty());
    EXPECT_THAT(KeyShortcut::parseList("\n\r\n\xE2\x80"), testing::IsEmpty());
}

TEST(KeyShortcut, theDefaultListIsReadWhole)
{
    const std::vector<KeyShortcut> expected{{"切换 App", 48, command}, {"聚焦搜索", 49, command},
        {"调度中心", 126, control}, {"显示桌面", 103, none}, {"区域截图", 21, command | shift},
        {"切换输入法", 49, control}, {"关闭窗口", 13, command}, {"退出 App", 12, command},
        {"锁定屏幕", 12, control | command}};
    EXPECT_EQ(KeyShortcut::defaults(), expected);
}

} // namespace
} // namespace pelorin
