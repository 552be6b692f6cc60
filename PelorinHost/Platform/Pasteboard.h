#pragma once

#include "PelorinCore/Wire/Message.h"

#include <string>

namespace pelorin {

// The desktop's clipboard, for plain text. Called on the session's queue.
class Pasteboard {
public:
    virtual ~Pasteboard() = default; // gives up what it owns

    // Replaces the content; it stays available to applications while this object lives. False when it can't
    // be set.
    virtual bool setText(const std::string& text) = 0;

    // Held while V is pressed, it pastes.
    virtual KeyModifiers pasteModifier() const { return keyModifier::control; }
};

} // namespace pelorin
