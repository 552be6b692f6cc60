#include "PelorinHost/Linux/X11KeyMap.h"

#include "PelorinCore/Keys/MacKey.h"

#include <algorithm>
#include <array>

namespace pelorin {
namespace {

using namespace MacKey;

struct Position {
    std::uint16_t macKeyCode;
    std::uint8_t x11Keycode; // evdev's code + 8
};

// macOS names no constants for these in our tables: keys of Japanese keyboards, and the menu key.
constexpr std::uint16_t jisYen = 93, jisUnderscore = 94, jisKeypadComma = 95, jisEisu = 102, jisKana = 104,
                        contextMenu = 110;

constexpr Position positions[] = {
    // clang-format off
    {escape, 9}, {grave, 49}, {digit1, 10}, {digit2, 11}, {digit3, 12}, {digit4, 13}, {digit5, 14},
    {digit6, 15}, {digit7, 16}, {digit8, 17}, {digit9, 18}, {digit0, 19}, {minus, 20}, {equal, 21},
    {backspace, 22},
    {tab, 23}, {q, 24}, {w, 25}, {e, 26}, {r, 27}, {t, 28}, {y, 29}, {u, 30}, {i, 31}, {o, 32}, {p, 33},
    {leftBracket, 34}, {rightBracket, 35}, {backslash, 51},
    {capsLock, 66}, {a, 38}, {s, 39}, {d, 40}, {f, 41}, {g, 42}, {h, 43}, {j, 44}, {k, 45}, {l, 46},
    {semicolon, 47}, {quote, 48}, {returnKey, 36},
    {shift, 50}, {isoSection, 94}, {z, 52}, {x, 53}, {c, 54}, {v, 55}, {b, 56}, {n, 57}, {m, 58},
    {comma, 59}, {period, 60}, {slash, 61}, {rightShift, 62},
    {control, 37}, {option, 64}, {command, 133}, {space, 65}, {rightCommand, 134}, {rightOption, 108},
    {rightControl, 105}, {contextMenu, 135},

    {f1, 67}, {f2, 68}, {f3, 69}, {f4, 70}, {f5, 71}, {f6, 72}, {f7, 73}, {f8, 74}, {f9, 75}, {f10, 76},
    {f11, 95}, {f12, 96},
    // On a Mac's keyboard these three are where others have Print Screen, Scroll Lock and Pause.
    {f13, 107}, {f14, 78}, {f15, 127},
    {f16, 194}, {f17, 195}, {f18, 196}, {f19, 197}, {f20, 198},

    {help, 118}, {home, 110}, {pageUp, 112}, {forwardDelete, 119}, {end, 115}, {pageDown, 117},
    {left, 113}, {right, 114}, {down, 116}, {up, 111}, {volumeUp, 123}, {volumeDown, 122}, {mute, 121},

    {keypadClear, 77}, {keypadEquals, 125}, {keypadDivide, 106}, {keypadMultiply, 63}, {keypadMinus, 82},
    {keypad7, 79}, {keypad8, 80}, {keypad9, 81}, {keypadPlus, 86}, {keypad4, 83}, {keypad5, 84},
    {keypad6, 85}, {keypad1, 87}, {keypad2, 88}, {keypad3, 89}, {keypadEnter, 104}, {keypad0, 90},
    {keypadDecimal, 91},

    {jisYen, 132}, {jisUnderscore, 97}, {jisKeypadComma, 129}, {jisEisu, 102}, {jisKana, 100},
    // clang-format on
};

constexpr auto keycodes = [] {
    std::array<std::uint8_t, 128> table{}; // macOS codes end at 126; 0 is no X keycode
    for (const auto& position : positions) table[position.macKeyCode] = position.x11Keycode;
    return table;
}();

} // namespace

std::optional<std::uint8_t> x11KeycodeAt(std::uint16_t macKeyCode)
{
    if (macKeyCode >= keycodes.size() || keycodes[macKeyCode] == 0) return std::nullopt;
    return keycodes[macKeyCode];
}

bool isKeyboardPosition(std::uint8_t x11Keycode)
{
    return std::ranges::find(positions, x11Keycode, &Position::x11Keycode) != std::end(positions);
}

} // namespace pelorin
