#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/EventPosting.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <mutex>
#include <set>

namespace pelorin {

// The rules between the phone's input and the desktop's events: what is held, where the pointer may go, what
// is left of a scroll. NaN and infinite motion is ignored. Queue: the session's; the pointer fields are under
// pointerLock, which is never held while an event is posted, so that the cursor queue may read them. Owned by
// the HostSession.
class InputInjector {
public:
    InputInjector(EventPosting& posting, DisplayBounds& displays, const SerialQueue& clock);
    ~InputInjector(); // releaseAll
    InputInjector(const InputInjector&) = delete;
    InputInjector& operator=(const InputInjector&) = delete;

    void move(double dx, double dy); // display points, already accelerated
    void button(MouseButton button, bool isDown, std::uint8_t clickCount);
    void scroll(double dx, double dy, ScrollPhase phase, MomentumPhase momentum);
    void key(std::uint16_t keyCode, bool isDown, KeyModifiers modifiers);
    void typeText(const std::string& utf8); // up to the first byte that is not UTF-8
    void releaseAll(); // every button, key and modifier that we hold down

    void confineTo(std::optional<std::uint32_t> displayID); // nothing: all active displays
    struct PointerState {
        std::optional<Point> recentlyPosted; // within positionTrust
        std::uint32_t appliedMoves = 0;
    };
    PointerState pointerState() const; // any queue

private:
    Point currentPosition();
    Point confined(Point target, Point previous);
    PointerEventType motionType() const;

    EventPosting& posting;
    DisplayBounds& displays;
    const SerialQueue& clock;
    std::set<MouseButton> buttonsDown;
    std::set<std::uint16_t> heldModifierKeys;
    std::set<std::uint16_t> heldKeys; // the other ones
    double scrollResidualX = 0;
    double scrollResidualY = 0;
    mutable std::mutex pointerLock;
    std::optional<Point> lastPosted;
    SteadyTime lastPostedAt;
    std::uint32_t appliedMoves = 0;
    std::optional<std::uint32_t> display;
};

} // namespace pelorin
