#pragma once

#include "PelorinCore/Wire/Message.h"

#include <optional>
#include <set>
#include <vector>

namespace pelorin {

// Makes key and text messages of what a window's keyboard gives. Keys travel by their position, so the host's
// layout decides what they type; text that no key of ours typed, from an input method, travels as text. A
// value of the window.
class KeyboardInput {
public:
    // hidUsage: of the USB HID keyboard page. Nothing for keys that no Mac has, and for the repetition of a
    // held key, which the host does itself.
    std::optional<message::Key> press(int hidUsage, bool isDown, KeyModifiers modifiers);
    // Text that arrived in the window; nothing when it is what a key that is held has typed already.
    std::optional<message::Text> type(std::string text) const;
    // Lets go of all that is held, as when the window loses the keyboard.
    std::vector<message::Key> releaseAll();

private:
    std::set<std::uint16_t> held; // key codes
};

} // namespace pelorin
