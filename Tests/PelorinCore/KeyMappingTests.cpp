#include "PelorinCore/Keys/KeyMapping.h"

#include <gtest/gtest.h>

#include <map>

namespace pelorin {
namespace {

TEST(KeyMapping, mapsTheKeyboardUsagesAndNoOthers)
{
    // Each line is a run of usages as the numbers of the two standards have it, independent of our names.
    const std::map<int, std::vector<int>> runs{
        {4, {0, 11, 8, 2, 14, 3, 5, 4, 34, 38, 40, 37, 46, 45, 31, 35, 12, 15, 1, 17, 32, 9, 13, 7, 16, 6}},
        {30, {18, 19, 20, 21, 23, 22, 26, 28, 25, 29}},
        {40, {36, 53, 51, 48, 49, 27, 24, 33, 30, 42, 42, 41, 39, 50, 43, 47, 44, 57}},
        {58, {122, 120, 99, 118, 96, 97, 98, 100, 101, 109, 103, 111}},
        {70, {105, 107, 113, 114, 115, 116, 117, 119, 121, 124, 123, 125, 126, 71, 75, 67, 78, 69, 76}},
        {89, {83, 84, 85, 86, 87, 88, 89, 91, 92, 82, 65, 10}},
        {103, {81, 105, 107, 113, 106, 64, 79, 80, 90}},
        {127, {74, 72, 73}},
        {224, {59, 56, 58, 55, 62, 60, 61, 54}},
    };
    std::map<int, int> expected;
    for (const auto& [first, codes] : runs)
        for (std::size_t i = 0; i < codes.size(); ++i) expected[first + static_cast<int>(i)] = codes[i];
    ASSERT_EQ(expected.size(), 117);
    for (int usage = -300; usage <= 70'000; ++usage) {
        const auto code = KeyMapping::macKeyCode(usage);
        const auto row = expected.find(usage);
        ASSERT_EQ(code.has_value(), row != expected.end()) << usage;
        if (code) {
            EXPECT_EQ(*code, row->second) << usage;
        }
    }
}

TEST(KeyMapping, knowsTheModifierKeysOfBothSides)
{
    const std::map<std::uint16_t, KeyModifiers> expected{{55, keyModifier::command},
        {54, keyModifier::command}, {56, keyModifier::shift}, {60, keyModifier::shift},
        {58, keyModifier::option}, {61, keyModifier::option}, {59, keyModifier::control},
        {62, keyModifier::control}, {57, keyModifier::capsLock}, {63, keyModifier::function}};
    for (int code = 0; code <= 0xFFFF; ++code) {
        const auto row = expected.find(static_cast<std::uint16_t>(code));
        const auto modifier = KeyMapping::modifier(static_cast<std::uint16_t>(code));
        ASSERT_EQ(modifier, row == expected.end() ? std::nullopt : std::optional{row->second}) << code;
    }
}

TEST(KeyMapping, typesEveryPrintableCharacterOfAUSLayout)
{
    const auto codesOf = [](std::u32string_view characters, bool needsShift) {
        std::vector<int> codes;
        for (const char32_t character : characters) {
            const auto key = KeyMapping::keyCode(character);
            EXPECT_TRUE(key && key->needsShift == needsShift) << static_cast<unsigned>(character);
            codes.push_back(key ? key->keyCode : -1);
        }
        return codes;
    };
    const std::vector<int> row{
        18, 19, 20, 21, 23, 22, 26, 28, 25, 29, 27, 24, 33, 30, 42, 41, 39, 50, 43, 47, 44};
    EXPECT_EQ(codesOf(U"1234567890-=[]\\;'`,./", false), row);
    EXPECT_EQ(codesOf(U"!@#$%^&*()_+{}|:\"~<>?", true), row);
    EXPECT_EQ(codesOf(U" \t\n", false), (std::vector{49, 48, 36}));
    EXPECT_EQ(codesOf(U"azm", false), (std::vector{0, 6, 46}));
    EXPECT_EQ(codesOf(U"AZM", true), (std::vector{0, 6, 46}));
}

TEST(KeyMapping, theKelvinSignIsAnUpperCaseK)
{
    EXPECT_EQ(KeyMapping::keyCode(U'\u212A'), (KeyMapping::TypedKey{40, true}));
}

TEST(KeyMapping, leavesOtherCharactersUntyped)
{
    for (const char32_t character : {U'\0', U'\r', U'\u007F', U'é', U'Å', U'İ', U'ａ', U'中', U'😀'})
        EXPECT_EQ(KeyMapping::keyCode(character), std::nullopt) << static_cast<unsigned>(character);
}

} // namespace
} // namespace pelorin
