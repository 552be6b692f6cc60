#pragma once

#include "PelorinCore/Pointer/ClickCounter.h"
#include "PelorinCore/Pointer/MomentumScroller.h"
#include "PelorinCore/Pointer/PointerAcceleration.h"
#include "PelorinCore/Wire/Message.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <deque>
#include <optional>
#include <span>

namespace pelorin {

// One finger on the glass, in points.
struct Touch {
    int id = 0; // the same finger keeps it
    double x = 0;
    double y = 0;
};

// Turns fingers on a phone used as a trackpad, or a mouse, into pointer, button and scroll messages.
//
//   one finger moves             the pointer moves, accelerated
//   one, two, three finger tap   left, right, middle click; quick taps on one spot count up to triple clicks
//   tap, then touch and move     drags with the left button
//   two fingers move             scroll; lifted in motion, the scroll runs on until it fades or is touched
//
// Queue: the session's. Owned by whoever has the fingers.
class GestureShaper {
public:
    explicit GestureShaper(QueueRef queue);

    std::function<void(const Message&)> onMessage; // on the queue, within the calls below or a timer

    // All fingers that touch now; whenever one moves, comes or goes.
    void touch(std::span<const Touch> touches);
    // The system took the fingers away from us: nothing that they began is completed.
    void cancelTouches();

    void moveMouse(double dx, double dy); // points
    void pressMouse(MouseButton button, bool isDown);
    void turnWheel(double clicksX, double clicksY); // positive: content moves right and down

private:
    enum class Gesture { none, undecided, pointing, dragging, scrolling };

    void fingersChanged(std::span<const Touch> touches);
    void fingersMoved(double dx, double dy, double dt);
    void fingersLifted();
    void tap();
    void beginDrag();
    void endDrag();
    void move(double dx, double dy);
    void beginScroll();
    void rememberScroll(double dx, double dy);
    void endScroll();
    void stepMomentum();
    void stopMomentum();
    void endWheel();
    void scroll(double dx, double dy, ScrollPhase phase, MomentumPhase momentum);
    std::uint8_t countClick(MouseButton button);

    QueueRef queue;
    ClickCounter clicks; // of clickedButton
    MouseButton clickedButton = MouseButton::left;
    double pointerX = 0; // where the pointer would be if nothing confined it; clicks are apart by it
    double pointerY = 0;

    Gesture gesture = Gesture::none;
    std::size_t fingers = 0;
    std::size_t mostFingers = 0; // since the first touched
    double centreX = 0; // of the touching fingers
    double centreY = 0;
    double travelled = 0; // points since the first touched
    SteadyTime firstTouchAt;
    SteadyTime lastTouchAt;
    bool mayDrag = false; // a left click was tapped just now
    SteadyTime lastTapAt;

    struct ScrollSample {
        SteadyTime at;
        double dx;
        double dy;
    };
    std::deque<ScrollSample> recentScroll; // tells the speed at which the fingers leave
    std::optional<MomentumScroller> momentum;
    bool momentumBegan = false;
    Subscription momentumTimer;

    SteadyTime lastMouseAt;
    std::uint8_t mouseClickCount = 0;
    bool isWheelTurning = false;
    Subscription wheelTimer;
};

} // namespace pelorin
