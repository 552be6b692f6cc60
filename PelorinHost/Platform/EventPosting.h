#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/Geometry.h"

#include <optional>
#include <string>

namespace pelorin {

enum class PointerEventType { moved, leftDragged, rightDragged, otherDragged };

// Posts input at the level of the hardware, for whichever application has the focus. Called on the session's
// queue and never makes it wait: what takes time (long texts) goes on by itself, in order with everything
// posted after it. An event that the platform can't make, or a display server that is gone, is skipped and
// logged once.
class EventPosting {
public:
    virtual ~EventPosting() = default; // whatever text is still being typed is dropped

    // rawDelta: the motion in whole points, for applications that read deltas.
    virtual void postPointer(PointerEventType type, Point target, int rawDeltaX, int rawDeltaY) = 0;
    virtual void postButton(MouseButton button, bool isDown, Point position, int clickState) = 0;
    // Whole pixels, positive y is up and positive x is left, as the phone's content follows the finger.
    virtual void postScroll(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum) = 0;
    // keyCode: macOS virtual key code, mapped by position. isModifier: a change of modifier flags
    // (flags-changed).
    virtual void postKey(std::uint16_t keyCode, bool isDown, KeyModifiers flags, bool isModifier) = 0;
    // At most 16 UTF-16 units of text, independent of the keyboard layout.
    virtual void postUnicode(const std::u16string& text) = 0;

    virtual std::optional<Point> cursorLocation() = 0;
};

// Bounds of displays in global points; the rules that confine the pointer ask it.
class DisplayBounds {
public:
    virtual ~DisplayBounds() = default;
    virtual Rect boundsOf(std::uint32_t displayID) = 0; // empty when there is no such display
    virtual std::vector<std::uint32_t> activeDisplays() = 0;
};

} // namespace pelorin
