#pragma once

#include "PelorinCore/Wire/Message.h"

#include <optional>

namespace pelorin {

// A key combination with the label that the phone puts on its button.
struct KeyShortcut {
    std::string title;
    std::uint16_t keyCode = 0; // macOS virtual key code
    KeyModifiers modifiers;
    bool operator==(const KeyShortcut&) const = default;

    // Reads a combination such as "cmd+shift+4": modifier names, then a key's name or one character, case and
    // blanks around them ignored, except that an upper-case letter asks for shift. Nothing if any part is
    // unknown. Without a title the combination is its own.
    static std::optional<KeyShortcut> parse(
        std::string_view combination, std::optional<std::string> title = std::nullopt);

    // One shortcut a line, "title=combination"; lines that are not are skipped.
    static std::vector<KeyShortcut> parseList(std::string_view text);

    static std::vector<KeyShortcut> defaults();
};

} // namespace pelorin
