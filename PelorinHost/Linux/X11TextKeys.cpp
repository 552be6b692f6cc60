#include "PelorinHost/Linux/X11TextKeys.h"

#include "PelorinCore/Result.h"
#include "PelorinHost/Linux/X11KeyMap.h"

#include <algorithm>
#include <utility>
#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

namespace pelorin {
namespace {

using Keysym = X11TextKeys::Keysym;
using Keysyms = std::array<Keysym, 2>; // plain, with shift

// Keysyms that are keys rather than characters, yet what a text means by its control characters.
std::optional<Keysym> controlKeysym(char32_t character)
{
    switch (character) {
    case '\b':
        return XKB_KEY_BackSpace;
    case '\t':
        return XKB_KEY_Tab;
    case '\n':
    case '\r':
        return XKB_KEY_Return;
    case 0x1B:
        return XKB_KEY_Escape;
    case 0x7F:
        return XKB_KEY_Delete;
    default:
        return std::nullopt;
    }
}

// 0 when there is none.
Keysym keysymOf(char32_t character)
{
    if (const auto control = controlKeysym(character)) return *control;
    const bool isControl = character < 0x20 || (character >= 0x80 && character < 0xA0);
    const bool isSurrogate = character >= 0xD800 && character < 0xE000;
    if (isControl || isSurrogate) return XKB_KEY_NoSymbol;
    return xkb_utf32_to_keysym(character);
}

// What a keysym of the layout types; 0 for keys that type nothing or belong to the keypad.
char32_t characterOf(Keysym keysym)
{
    for (const char32_t control : {U'\b', U'\t', U'\r', U'\x1B', U'\x7F'})
        if (keysym == controlKeysym(control)) return control;
    if (keysym >= 0xFD00 && keysym < 0x01000000) return 0;
    return xkb_keysym_to_utf32(keysym);
}

bool bears(const Keysyms& keysyms, Keysym keysym)
{
    return keysyms[0] == keysym || keysyms[1] == keysym;
}

bool areLetterCases(const Keysyms& keysyms)
{
    return keysyms[0] != keysyms[1] && xkb_keysym_to_upper(keysyms[0]) == keysyms[1];
}

// What a spare gets. A letter comes with its other case, as on any keyboard: only then does the server know
// the key as a letter and Caps Lock as something that shift undoes.
Keysyms spareKeysyms(Keysym keysym)
{
    const Keysyms cases{xkb_keysym_to_lower(keysym), xkb_keysym_to_upper(keysym)};
    if (areLetterCases(cases) && bears(cases, keysym)) return cases;
    return {keysym, keysym};
}

X11TextKeys::Stroke strokeOn(std::uint8_t keycode, const Keysyms& keysyms, Keysym wanted)
{
    return {.keycode = keycode,
        .isShifted = keysyms[0] != wanted,
        .isLetter = areLetterCases(keysyms),
        .ignoresShift = keysyms[0] == keysyms[1]};
}

// The shape that spareKeysyms gives, which no layout gives to a keycode off the keyboard.
bool looksLikeOurs(const Keysyms& keysyms)
{
    return keysyms[0] != XKB_KEY_NoSymbol && spareKeysyms(keysyms[0]) == keysyms
        && (characterOf(keysyms[0]) != 0);
}

} // namespace

X11TextKeys::X11TextKeys(Keycode firstKeycode, int keysymsPerKeycode, std::span<const Keysym> keysyms)
{
    reload(firstKeycode, keysymsPerKeycode, keysyms);
}

void X11TextKeys::reload(Keycode firstKeycode, int keysymsPerKeycode, std::span<const Keysym> keysyms)
{
    const auto before = std::exchange(spares, {});
    layout.clear();
    if (keysymsPerKeycode <= 0) return;
    const auto perKey = static_cast<std::size_t>(keysymsPerKeycode);
    for (std::size_t i = 0; (i + 1) * perKey <= keysyms.size() && firstKeycode + i <= 255; ++i)
        addKey(static_cast<Keycode>(firstKeycode + i), keysyms.subspan(i * perKey, perKey));
    for (auto& spare : spares) {
        const auto known = std::ranges::find(before, spare.keycode, &Spare::keycode);
        if (known != before.end()) spare.lastUsed = known->lastUsed;
    }
}

void X11TextKeys::addKey(Keycode keycode, std::span<const Keysym> keysyms)
{
    const Keysyms first{keysyms[0], keysyms.size() > 1 ? keysyms[1] : XKB_KEY_NoSymbol};
    const bool isEmpty = std::ranges::all_of(keysyms, [](Keysym k) { return k == XKB_KEY_NoSymbol; });
    if (!isKeyboardPosition(keycode) && (isEmpty || looksLikeOurs(first))) {
        spares.push_back({keycode, first, {}});
        return;
    }
    for (const Keysym keysym : first)
        if (const auto character = characterOf(keysym))
            layout.emplace(character, strokeOn(keycode, first, keysym)); // the first key that has it
}

std::optional<X11TextKeys::Stroke> X11TextKeys::onLayout(char32_t character) const
{
    const auto found = layout.find(character == '\n' ? U'\r' : character);
    if (found == layout.end()) return std::nullopt;
    return found->second;
}

std::optional<X11TextKeys::Placement> X11TextKeys::place(char32_t character, Time now)
{
    const Keysym wanted = keysymOf(character);
    if (wanted == XKB_KEY_NoSymbol || spares.empty()) return std::nullopt;

    const auto bearing
        = std::ranges::find_if(spares, [&](const Spare& spare) { return bears(spare.keysyms, wanted); });
    if (bearing != spares.end()) {
        bearing->lastUsed = now;
        return Placement{strokeOn(bearing->keycode, bearing->keysyms, wanted), {}};
    }
    const auto oldest = std::ranges::min_element(spares, {}, &Spare::lastUsed);
    if (now < nextFree()) return std::nullopt;
    oldest->keysyms = spareKeysyms(wanted);
    oldest->lastUsed = now;
    return Placement{strokeOn(oldest->keycode, oldest->keysyms, wanted), oldest->keysyms};
}

bool X11TextKeys::isTypeable(char32_t character)
{
    return keysymOf(character) != XKB_KEY_NoSymbol;
}

X11TextKeys::Time X11TextKeys::nextFree() const
{
    require(hasSpares(), "asked when a spare keycode is free, and there are none");
    const auto oldest = std::ranges::min_element(spares, {}, &Spare::lastUsed);
    return oldest->lastUsed == Time{} ? Time{} : oldest->lastUsed + reuseDelay;
}

std::vector<X11TextKeys::Keycode> X11TextKeys::assignedBefore(Time time) const
{
    std::vector<Keycode> assigned;
    for (const auto& spare : spares)
        if (spare.keysyms[0] != XKB_KEY_NoSymbol && spare.lastUsed < time) assigned.push_back(spare.keycode);
    return assigned;
}

void X11TextKeys::forget(Keycode keycode)
{
    for (auto& spare : spares)
        if (spare.keycode == keycode) spare = {keycode, {}, {}};
}

} // namespace pelorin
