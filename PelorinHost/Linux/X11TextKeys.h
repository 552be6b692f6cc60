#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace pelorin {

// Which key types which character: a key of the layout where it has one, else a spare keycode, one that no
// key of the keyboard uses, which is given the character for a while. Applications look a key up when they
// get round to it, so a spare keeps its character for reuseDelay after the last press. Knows numbers only;
// the owner presses the keys and writes the keysyms.
class X11TextKeys {
public:
    using Keycode = std::uint8_t;
    using Keysym = std::uint32_t;
    using Time = std::chrono::steady_clock::time_point;

    // 80 ms is enough for applications on an idle machine, and too short as soon as compilers run beside
    // them.
    static constexpr auto reuseDelay = std::chrono::milliseconds(250);

    // keysyms: keysymsPerKeycode for each keycode from firstKeycode on, as the server tells them. Spares that
    // still bear characters, of a host that was killed, count as spares again.
    X11TextKeys(Keycode firstKeycode, int keysymsPerKeycode, std::span<const Keysym> keysyms);
    // After somebody changed the mapping; remembers when spares were used.
    void reload(Keycode firstKeycode, int keysymsPerKeycode, std::span<const Keysym> keysyms);

    struct Stroke {
        Keycode keycode = 0;
        bool isShifted = false;
        bool isLetter = false; // Caps Lock turns isShifted around
        bool ignoresShift = false;
        bool operator==(const Stroke&) const = default;
    };

    // The key that types it in the layout's first group.
    std::optional<Stroke> onLayout(char32_t character) const;

    // The spare that types it, marked as used now. newKeysyms: to be written to the keycode first. Nothing
    // when no spare is free before nextFree, or the character can't be typed.
    struct Placement {
        Stroke stroke;
        std::optional<std::array<Keysym, 2>> newKeysyms;
    };
    std::optional<Placement> place(char32_t character, Time now);

    static bool isTypeable(char32_t character);
    bool hasSpares() const { return !spares.empty(); }
    Time nextFree() const; // with spares only

    // Spares that bear characters and were last pressed before time.
    std::vector<Keycode> assignedBefore(Time time) const;
    void forget(Keycode keycode); // it bears no character any more

private:
    struct Spare {
        Keycode keycode = 0;
        std::array<Keysym, 2> keysyms{};
        Time lastUsed{};
    };
    void addKey(Keycode keycode, std::span<const Keysym> keysyms);

    std::map<char32_t, Stroke> layout;
    std::vector<Spare> spares;
};

} // namespace pelorin
