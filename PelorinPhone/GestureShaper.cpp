#include "PelorinPhone/GestureShaper.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// A phone is 3 to 4 times narrower than a desktop: slow motion stays near the finger's own, so that single
// points can be hit, and a quick sweep over the glass crosses the desktop.
constexpr PointerAcceleration fingerAcceleration{1.2, 1.0};

// A mouse's motion has been accelerated by the viewer's own desktop, as its user likes it.
constexpr PointerAcceleration mouseAcceleration{1.0, 0};

// What desktops take for a double click. The distance is that of a fingertip set down twice, in desktop
// points.
constexpr double longestClickInterval = 0.5;
constexpr double largestClickDistance = 8;

// A touch is a tap while it is shorter than a deliberate hold and moves less than a fingertip rolls.
constexpr Duration longestTap = 250ms;
constexpr double tapSlop = 6;

// A touch this soon after a tap holds the button instead of moving the pointer.
constexpr Duration longestDragPause = 250ms;

// A flick halves its speed every 350 ms and stops where motion is no longer seen.
constexpr double decelerationPerMs = 0.998;
constexpr double slowestScroll = 20;

// No flick: fingers that stood still before they left, or that left slowly.
constexpr Duration flickWindow = 80ms;
constexpr double slowestFlick = 80;

constexpr Duration momentumStep = 16'667us;

// A click of the wheel scrolls about three lines of text, as desktops have it.
constexpr double wheelClickPx = 48;

// A wheel that has not clicked for so long has been let go.
constexpr Duration wheelPause = 150ms;

double secondsOf(Duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

} // namespace

GestureShaper::GestureShaper(QueueRef newQueue)
    : queue(std::move(newQueue)),
      clicks(longestClickInterval, largestClickDistance)
{
}

void GestureShaper::touch(std::span<const Touch> touches)
{
    queue->assertCurrent();
    const SteadyTime now = queue->now();
    if (touches.size() != fingers) {
        fingersChanged(touches);
        lastTouchAt = now;
        return;
    }
    if (touches.empty()) return;
    double x = 0;
    double y = 0;
    for (const Touch& finger : touches) {
        x += finger.x / static_cast<double>(touches.size());
        y += finger.y / static_cast<double>(touches.size());
    }
    fingersMoved(x - std::exchange(centreX, x), y - std::exchange(centreY, y), secondsOf(now - lastTouchAt));
    lastTouchAt = now;
}

void GestureShaper::cancelTouches()
{
    queue->assertCurrent();
    stopMomentum();
    if (gesture == Gesture::dragging) endDrag();
    if (gesture == Gesture::scrolling) scroll(0, 0, ScrollPhase::cancelled, MomentumPhase::none);
    gesture = Gesture::none;
    fingers = 0;
    mayDrag = false;
}

// A finger that comes or goes moves the centre without any motion, so every change starts measuring anew.
void GestureShaper::fingersChanged(std::span<const Touch> touches)
{
    const bool isFirst = fingers == 0;
    fingers = touches.size();
    if (fingers == 0) return fingersLifted();
    centreX = centreY = 0;
    for (const Touch& finger : touches) {
        centreX += finger.x / static_cast<double>(fingers);
        centreY += finger.y / static_cast<double>(fingers);
    }
    if (isFirst) {
        stopMomentum();
        firstTouchAt = queue->now();
        travelled = 0;
        mostFingers = 0;
        gesture = Gesture::undecided;
        mayDrag = mayDrag && firstTouchAt - lastTapAt <= longestDragPause;
    }
    mostFingers = std::max(mostFingers, fingers);
}

void GestureShaper::fingersMoved(double dx, double dy, double dt)
{
    travelled += std::hypot(dx, dy);
    if (gesture == Gesture::undecided && travelled > tapSlop) {
        if (mostFingers == 1 && mayDrag)
            beginDrag();
        else if (mostFingers == 2)
            beginScroll();
        else if (mostFingers == 1)
            gesture = Gesture::pointing;
        mayDrag = false;
    }
    if (gesture == Gesture::pointing && mostFingers == 2) beginScroll(); // the second finger came late

    if (gesture == Gesture::scrolling) {
        rememberScroll(dx, dy);
        return scroll(dx, dy, ScrollPhase::changed, MomentumPhase::none);
    }
    if (gesture != Gesture::pointing && gesture != Gesture::dragging) return;
    const auto motion = fingerAcceleration.apply(dx, dy, dt);
    move(motion.dx, motion.dy);
}

void GestureShaper::fingersLifted()
{
    const Gesture ended = std::exchange(gesture, Gesture::none);
    if (ended == Gesture::dragging) endDrag();
    if (ended == Gesture::scrolling) endScroll();
    if (ended == Gesture::undecided && queue->now() - firstTouchAt <= longestTap)
        tap();
    else
        mayDrag = false;
}

void GestureShaper::tap()
{
    if (mostFingers < 1 || mostFingers > 3) return;
    static constexpr MouseButton buttons[] = {MouseButton::left, MouseButton::right, MouseButton::middle};
    const MouseButton button = buttons[mostFingers - 1];
    const std::uint8_t count = countClick(button);
    onMessage(message::MouseButtonChange{button, true, count});
    onMessage(message::MouseButtonChange{button, false, count});
    mayDrag = button == MouseButton::left;
    lastTapAt = queue->now();
}

void GestureShaper::beginDrag()
{
    gesture = Gesture::dragging;
    mouseClickCount = countClick(MouseButton::left);
    onMessage(message::MouseButtonChange{MouseButton::left, true, mouseClickCount});
}

void GestureShaper::endDrag()
{
    onMessage(message::MouseButtonChange{MouseButton::left, false, mouseClickCount});
}

void GestureShaper::move(double dx, double dy)
{
    if (dx == 0 && dy == 0) return;
    pointerX += dx;
    pointerY += dy;
    onMessage(message::MouseMove{static_cast<float>(dx), static_cast<float>(dy)});
}

void GestureShaper::beginScroll()
{
    gesture = Gesture::scrolling;
    recentScroll.clear();
    scroll(0, 0, ScrollPhase::began, MomentumPhase::none);
}

void GestureShaper::rememberScroll(double dx, double dy)
{
    const SteadyTime now = queue->now();
    recentScroll.push_back({now, dx, dy});
    while (recentScroll.front().at < now - flickWindow) recentScroll.pop_front();
}

void GestureShaper::endScroll()
{
    scroll(0, 0, ScrollPhase::ended, MomentumPhase::none);
    MomentumScroller flick{0, 0, decelerationPerMs, slowestScroll};
    for (const ScrollSample& sample : recentScroll) {
        if (sample.at < queue->now() - flickWindow) continue;
        flick.velocityX += sample.dx / secondsOf(flickWindow);
        flick.velocityY += sample.dy / secondsOf(flickWindow);
    }
    if (std::hypot(flick.velocityX, flick.velocityY) < slowestFlick) return;
    momentum = flick;
    momentumBegan = false;
    momentumTimer = queue->every(momentumStep, [this] { stepMomentum(); });
}

void GestureShaper::stepMomentum()
{
    const auto step = momentum->step(secondsOf(momentumStep));
    if (step.isFinished) return stopMomentum();
    const bool isFirst = !std::exchange(momentumBegan, true);
    scroll(step.dx, step.dy, ScrollPhase::none, isFirst ? MomentumPhase::began : MomentumPhase::changed);
}

void GestureShaper::stopMomentum()
{
    momentumTimer.cancel();
    if (momentum && momentumBegan) scroll(0, 0, ScrollPhase::none, MomentumPhase::ended);
    momentum.reset();
    momentumBegan = false;
}

void GestureShaper::moveMouse(double dx, double dy)
{
    queue->assertCurrent();
    const SteadyTime now = queue->now();
    const auto motion = mouseAcceleration.apply(dx, dy, secondsOf(now - std::exchange(lastMouseAt, now)));
    move(motion.dx, motion.dy);
}

void GestureShaper::pressMouse(MouseButton button, bool isDown)
{
    queue->assertCurrent();
    if (isDown) mouseClickCount = countClick(button);
    onMessage(message::MouseButtonChange{button, isDown, mouseClickCount});
}

void GestureShaper::turnWheel(double clicksX, double clicksY)
{
    queue->assertCurrent();
    stopMomentum();
    if (!std::exchange(isWheelTurning, true)) scroll(0, 0, ScrollPhase::began, MomentumPhase::none);
    scroll(clicksX * wheelClickPx, clicksY * wheelClickPx, ScrollPhase::changed, MomentumPhase::none);
    wheelTimer = queue->after(wheelPause, [this] { endWheel(); });
}

void GestureShaper::endWheel()
{
    isWheelTurning = false;
    scroll(0, 0, ScrollPhase::ended, MomentumPhase::none);
}

void GestureShaper::scroll(double dx, double dy, ScrollPhase phase, MomentumPhase momentumPhase)
{
    onMessage(message::Scroll{static_cast<float>(dx), static_cast<float>(dy), phase, momentumPhase});
}

// Clicks of different buttons are no series.
std::uint8_t GestureShaper::countClick(MouseButton button)
{
    if (std::exchange(clickedButton, button) != button)
        clicks = ClickCounter(longestClickInterval, largestClickDistance);
    return clicks.registerClick(secondsOf(queue->now().time_since_epoch()), pointerX, pointerY);
}

} // namespace pelorin
