#pragma once

#include "PelorinCore/Wire/Message.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pelorin {

// The desktop's clipboard, for plain text. Called on the session's queue.
class Pasteboard {
public:
    virtual ~Pasteboard() = default; // gives up what it owns

    // Replaces the content; it stays available to applications while this object lives. False when it can't
    // be set.
    virtual bool setText(const std::string& text) = 0;

    // Another one after each change of the content, whoever made it.
    virtual int changeCount() = 0;

    using Types = std::vector<std::string>; // by the platform's names
    // Asks what kinds the content comes in, and for its text if wants approves of them. Later and on the
    // queue, done is told the text; nothing when wants declined, when there is no text or more than mostBytes
    // of it, or when its owner does not hand it out in time. A new question ends the one before, unanswered.
    virtual void readText(std::size_t mostBytes, std::function<bool(const Types&)> wants,
        std::function<void(std::optional<std::string>)> done)
        = 0;

    // Held while V is pressed, it pastes.
    virtual KeyModifiers pasteModifier() const { return keyModifier::control; }
};

} // namespace pelorin
