#pragma once

#include <cstdint>

// macOS virtual key codes: positions on the keyboard, named after what a US layout prints there.
namespace pelorin::MacKey {

// clang-format off
inline constexpr std::uint16_t
    a = 0, b = 11, c = 8, d = 2, e = 14, f = 3, g = 5, h = 4, i = 34, j = 38, k = 40, l = 37, m = 46, n = 45,
    o = 31, p = 35, q = 12, r = 15, s = 1, t = 17, u = 32, v = 9, w = 13, x = 7, y = 16, z = 6;

inline constexpr std::uint16_t
    digit1 = 18, digit2 = 19, digit3 = 20, digit4 = 21, digit5 = 23, digit6 = 22, digit7 = 26, digit8 = 28,
    digit9 = 25, digit0 = 29;

inline constexpr std::uint16_t
    minus = 27, equal = 24, leftBracket = 33, rightBracket = 30, backslash = 42, semicolon = 41, quote = 39,
    grave = 50, comma = 43, period = 47, slash = 44,
    isoSection = 10; // between left shift and z on ISO keyboards

inline constexpr std::uint16_t
    returnKey = 36, tab = 48, space = 49, backspace = 51, escape = 53, forwardDelete = 117, help = 114,
    home = 115, end = 119, pageUp = 116, pageDown = 121, left = 123, right = 124, down = 125, up = 126;

inline constexpr std::uint16_t
    f1 = 122, f2 = 120, f3 = 99, f4 = 118, f5 = 96, f6 = 97, f7 = 98, f8 = 100, f9 = 101, f10 = 109, f11 = 103,
    f12 = 111, f13 = 105, f14 = 107, f15 = 113, f16 = 106, f17 = 64, f18 = 79, f19 = 80, f20 = 90;

inline constexpr std::uint16_t
    keypad0 = 82, keypad1 = 83, keypad2 = 84, keypad3 = 85, keypad4 = 86, keypad5 = 87, keypad6 = 88,
    keypad7 = 89, keypad8 = 91, keypad9 = 92, keypadDecimal = 65, keypadMultiply = 67, keypadPlus = 69,
    keypadClear = 71, keypadDivide = 75, keypadEnter = 76, keypadMinus = 78, keypadEquals = 81;

inline constexpr std::uint16_t volumeUp = 72, volumeDown = 73, mute = 74;

inline constexpr std::uint16_t
    command = 55, rightCommand = 54, shift = 56, rightShift = 60, option = 58, rightOption = 61, control = 59,
    rightControl = 62, capsLock = 57, function = 63;
// clang-format on

} // namespace pelorin::MacKey
