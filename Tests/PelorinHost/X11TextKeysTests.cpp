#include "PelorinHost/Linux/X11TextKeys.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Keysym = X11TextKeys::Keysym;
using Stroke = X11TextKeys::Stroke;

constexpr X11TextKeys::Time start{1h};

// Four keys of a German keyboard, one of the keypad, a media key with a character, and two spare keycodes.
struct Keyboard {
    static constexpr int perKey = 4;
    std::vector<Keysym> keysyms = std::vector<Keysym>(248 * perKey, 0x1008ff12); // nothing spare
    Keyboard()
    {
        set(10, {'1', '!'});
        set(34, {0xfc, 0xdc}); // ü Ü
        set(38, {'a', 'A'});
        set(49, {0xfe52, 0xb0}); // dead circumflex, °
        set(79, {0xff95, 0xffb7}); // KP_Home, KP_7
        set(187, {'('}); // no key of the keyboard, yet none of ours
        set(120, {});
        set(93, {});
        set(97, {}); // without a keysym, but a key's place
    }
    void set(int keycode, std::vector<Keysym> syms)
    {
        syms.resize(perKey, 0);
        std::ranges::copy(syms, keysyms.begin() + (keycode - 8) * perKey);
    }
    X11TextKeys keys() const { return {8, perKey, keysyms}; }
};

TEST(X11TextKeys, findsTheLayoutsOwnKeys)
{
    const auto keys = Keyboard().keys();
    EXPECT_EQ(keys.onLayout('1'), (Stroke{.keycode = 10}));
    EXPECT_EQ(keys.onLayout('!'), (Stroke{.keycode = 10, .isShifted = true}));
    EXPECT_EQ(keys.onLayout(U'ü'), (Stroke{.keycode = 34, .isLetter = true}));
    EXPECT_EQ(keys.onLayout('A'), (Stroke{.keycode = 38, .isShifted = true, .isLetter = true}));
    EXPECT_EQ(keys.onLayout('7'), std::nullopt); // Num Lock would decide
    EXPECT_EQ(keys.onLayout('^'), std::nullopt); // dead
    EXPECT_EQ(keys.onLayout(U'好'), std::nullopt);
}

TEST(X11TextKeys, reusesASpareOnlyWhenApplicationsHadTimeToLookItUp)
{
    auto keys = Keyboard().keys();
    const auto first = keys.place(U'好', start);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->stroke, (Stroke{.keycode = 93, .ignoresShift = true}));
    EXPECT_THAT(*first->newKeysyms, ElementsAre(0x0100597d, 0x0100597d));

    const auto letter = keys.place(U'ö', start + 5ms);
    EXPECT_EQ(letter->stroke, (Stroke{.keycode = 120, .isLetter = true}));
    EXPECT_THAT(*letter->newKeysyms, ElementsAre(0xf6, 0xd6));

    const auto again = keys.place(U'好', start + 40ms);
    EXPECT_EQ(again->stroke.keycode, 93);
    EXPECT_FALSE(again->newKeysyms);
    EXPECT_EQ(keys.place(U'Ö', start + 10ms)->stroke,
        (Stroke{.keycode = 120, .isShifted = true, .isLetter = true}));

    EXPECT_FALSE(keys.place(U'😀', start + 259ms)); // both used too lately
    EXPECT_EQ(keys.nextFree(), start + 260ms);
    const auto reused = keys.place(U'😀', start + 260ms);
    EXPECT_EQ(reused->stroke.keycode, 120);
    EXPECT_THAT(*reused->newKeysyms, ElementsAre(0x0101f600, 0x0101f600));
    EXPECT_THAT(keys.assignedBefore(start + 260ms), ElementsAre(93));
}

TEST(X11TextKeys, knowsSparesThatAKilledHostLeftBehind)
{
    Keyboard keyboard;
    keyboard.set(93, {0x0100597d, 0x0100597d, 0x0100597d, 0x0100597d}); // as the server tells one of ours
    keyboard.set(120, {0xf6, 0xd6, 0xf6, 0xd6});
    auto keys = keyboard.keys();
    EXPECT_EQ(keys.onLayout(U'好'), std::nullopt);
    EXPECT_FALSE(keys.place(U'好', start)->newKeysyms);
    EXPECT_THAT(keys.assignedBefore(start), ElementsAre(120));
    EXPECT_EQ(keys.place('x', start)->stroke.keycode, 120);
}

TEST(X11TextKeys, rememberWhenASpareWasUsedThroughAChangeOfLayout)
{
    Keyboard keyboard;
    auto keys = keyboard.keys();
    keys.place(U'好', start);
    keys.place(U'们', start + 1ms);
    keyboard.set(93, {}); // the new layout knows nothing of ours
    keys.reload(8, Keyboard::perKey, keyboard.keysyms);
    EXPECT_FALSE(keys.place(U'好', start + 249ms));
    EXPECT_TRUE(keys.place(U'好', start + 250ms)->newKeysyms);
}

TEST(X11TextKeys, typesControlCharactersThatAreKeysAndRefusesWhatIsNoCharacter)
{
    for (const char32_t good :
        {U'\t', U'\n', U'\r', U'\b', U'\x1b', U'\x7f', U' ', U'\u00a0', U'\u200d', U'\U0010fffd'})
        EXPECT_TRUE(X11TextKeys::isTypeable(good)) << static_cast<int>(good);
    for (const char32_t bad :
        {U'\0', U'\1', U'\x1f', U'\x85', static_cast<char32_t>(0xd800), static_cast<char32_t>(0x110000)})
        EXPECT_FALSE(X11TextKeys::isTypeable(bad)) << static_cast<int>(bad);
    EXPECT_EQ(Keyboard().keys().place(U'\n', start)->newKeysyms->front(), 0xff0du);
}

TEST(X11TextKeys, copesWithMapsThatNoServerShouldSend)
{
    const std::vector<Keysym> few{'a', 'A', 'b'};
    for (const int perKey : {-1, 0, 1, 2, 5}) {
        X11TextKeys keys(254, perKey, few); // beyond the last keycode, or cut off in the middle of a key
        EXPECT_LE(keys.assignedBefore(start).size(), 2u);
        EXPECT_EQ(keys.place(U'好', start).has_value(), keys.hasSpares());
    }
}

} // namespace
} // namespace pelorin
