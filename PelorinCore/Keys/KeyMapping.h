#pragma once

#include "PelorinCore/Wire/Message.h"

#include <optional>

// From what a keyboard or a person gives to the macOS virtual key codes that travel in key messages.
namespace pelorin::KeyMapping {

// A usage of USB HID's keyboard page (7).
std::optional<std::uint16_t> macKeyCode(int hidUsage);

// The modifier that a key code itself is, left and right alike.
std::optional<KeyModifiers> modifier(std::uint16_t keyCode);

// The key that types a character on a US layout, and whether shift must be held. Nothing for a character that
// no key types.
struct TypedKey {
    std::uint16_t keyCode = 0;
    bool needsShift = false;
    bool operator==(const TypedKey&) const = default;
};
std::optional<TypedKey> keyCode(char32_t character);

// Lower case as far as the tables reach: the Latin alphabet and the Kelvin sign, whose lower case is a plain
// k.
char32_t lowerCased(char32_t character);

} // namespace pelorin::KeyMapping
