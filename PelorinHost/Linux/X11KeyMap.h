#pragma once

#include <cstdint>
#include <optional>

namespace pelorin {

// The X keycode at the same place of the keyboard as a macOS virtual key code, by the evdev numbering that X
// servers on Linux use. What the key types there is the desktop's layout. Nothing for keys that X keycodes do
// not reach, such as fn.
std::optional<std::uint8_t> x11KeycodeAt(std::uint16_t macKeyCode);

// Whether some macOS key is at this keycode.
bool isKeyboardPosition(std::uint8_t x11Keycode);

} // namespace pelorin
