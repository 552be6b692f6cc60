#include "PelorinCore/Keys/KeyMapping.h"

#include "PelorinCore/Keys/MacKey.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <span>

namespace pelorin::KeyMapping {

namespace {

using namespace MacKey;

// Runs of neighbouring usages. Choices in them: Print Screen, Scroll Lock and Pause are F13 to F15, Insert is
// Help, Num Lock is the keypad's Clear, and both backslash usages are the one backslash key.
// clang-format off
constexpr std::uint16_t fromLetterA[]{ // 4 to 100
    a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q, r, s, t, u, v, w, x, y, z,
    digit1, digit2, digit3, digit4, digit5, digit6, digit7, digit8, digit9, digit0,
    returnKey, escape, backspace, tab, space, minus, equal, leftBracket, rightBracket, backslash, backslash,
    semicolon, quote, grave, comma, period, slash, capsLock,
    f1, f2, f3, f4, f5, f6, f7, f8, f9, f10, f11, f12,
    f13, f14, f15, help, home, pageUp, forwardDelete, end, pageDown, right, left, down, up,
    keypadClear, keypadDivide, keypadMultiply, keypadMinus, keypadPlus, keypadEnter,
    keypad1, keypad2, keypad3, keypad4, keypad5, keypad6, keypad7, keypad8, keypad9, keypad0,
    keypadDecimal, isoSection};
constexpr std::uint16_t fromKeypadEquals[]{keypadEquals, f13, f14, f15, f16, f17, f18, f19, f20};
constexpr std::uint16_t fromMute[]{mute, volumeUp, volumeDown};
constexpr std::uint16_t fromLeftControl[]{
    control, shift, option, command, rightControl, rightShift, rightOption, rightCommand};
// clang-format on

struct UsageRun {
    int first;
    std::span<const std::uint16_t> keyCodes;
};
constexpr UsageRun usageRuns[]{
    {4, fromLetterA}, {103, fromKeypadEquals}, {127, fromMute}, {224, fromLeftControl}};

constexpr auto letters = std::span{fromLetterA}.first<26>(); // a to z

struct Typed {
    char32_t character;
    std::uint16_t keyCode;
};
// clang-format off
constexpr Typed unshifted[]{
    {'1', digit1}, {'2', digit2}, {'3', digit3}, {'4', digit4}, {'5', digit5}, {'6', digit6}, {'7', digit7},
    {'8', digit8}, {'9', digit9}, {'0', digit0}, {'-', minus}, {'=', equal}, {'[', leftBracket},
    {']', rightBracket}, {'\\', backslash}, {';', semicolon}, {'\'', quote}, {'`', grave}, {',', comma},
    {'.', period}, {'/', slash}, {' ', space}, {'\t', tab}, {'\n', returnKey}};
constexpr Typed shifted[]{
    {'!', digit1}, {'@', digit2}, {'#', digit3}, {'$', digit4}, {'%', digit5}, {'^', digit6}, {'&', digit7},
    {'*', digit8}, {'(', digit9}, {')', digit0}, {'_', minus}, {'+', equal}, {'{', leftBracket},
    {'}', rightBracket}, {'|', backslash}, {':', semicolon}, {'"', quote}, {'~', grave}, {'<', comma},
    {'>', period}, {'?', slash}};
// clang-format on

std::optional<std::uint16_t> find(std::span<const Typed> table, char32_t character)
{
    const auto found = std::ranges::find(table, character, &Typed::character);
    if (found == table.end()) return std::nullopt;
    return found->keyCode;
}

} // namespace

std::optional<std::uint16_t> macKeyCode(int hidUsage)
{
    for (const auto& [first, keyCodes] : usageRuns)
        if (hidUsage >= first && hidUsage < first + std::ssize(keyCodes))
            return keyCodes[static_cast<std::size_t>(hidUsage - first)];
    return std::nullopt;
}

std::optional<KeyModifiers> modifier(std::uint16_t keyCode)
{
    switch (keyCode) {
    case command:
    case rightCommand:
        return keyModifier::command;
    case shift:
    case rightShift:
        return keyModifier::shift;
    case option:
    case rightOption:
        return keyModifier::option;
    case control:
    case rightControl:
        return keyModifier::control;
    case capsLock:
        return keyModifier::capsLock;
    case function:
        return keyModifier::function;
    default:
        return std::nullopt;
    }
}

std::optional<TypedKey> keyCode(char32_t character)
{
    const char32_t lower = lowerCased(character);
    if (lower >= 'a' && lower <= 'z') return TypedKey{letters[lower - 'a'], lower != character};
    if (const auto code = find(unshifted, character)) return TypedKey{*code, false};
    if (const auto code = find(shifted, character)) return TypedKey{*code, true};
    return std::nullopt;
}

char32_t lowerCased(char32_t character)
{
    constexpr char32_t kelvinSign = 0x212A;
    if (character == kelvinSign) return 'k';
    return character >= 'A' && character <= 'Z' ? character - 'A' + 'a' : character;
}

} // namespace pelorin::KeyMapping
