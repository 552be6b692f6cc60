#include "PelorinHost/Input/InputInjector.h"

#include "PelorinCore/Keys/KeyMapping.h"
#include "PelorinCore/Keys/MacKey.h"
#include "PelorinCore/Utf8.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace pelorin {
namespace {

// How long our own last position is better than the desktop's, which lags behind what was just posted.
constexpr auto positionTrust = std::chrono::milliseconds(250);
constexpr std::size_t maxUnitsPerEvent = 16; // UTF-16 units that one keyboard event carries

bool areFinite(double a, double b)
{
    return std::isfinite(a) && std::isfinite(b);
}

// Within what an int holds, far beyond any desktop.
double clampedToInt(double value)
{
    using Limits = std::numeric_limits<std::int32_t>;
    return std::clamp(value, double{Limits::min()}, double{Limits::max()});
}

int roundedAwayFromZero(double value)
{
    return static_cast<int>(std::round(clampedToInt(value)));
}

// Takes the whole pixels off what has gathered.
int takeWhole(double& residual, double added)
{
    const double sum = clampedToInt(residual + added);
    const double whole = std::trunc(sum);
    residual = sum - whole;
    return static_cast<int>(whole);
}

// The last point inside is one short of the edge, where the pointer would already be on the next display.
Point clampedInto(const Rect& bounds, Point point)
{
    if (bounds.isEmpty()) return point;
    return {std::max(bounds.x, std::min(point.x, bounds.x + bounds.width - 1)),
        std::max(bounds.y, std::min(point.y, bounds.y + bounds.height - 1))};
}

void appendUtf16(std::u16string& units, char32_t scalar)
{
    if (scalar < 0x10000) {
        units += static_cast<char16_t>(scalar);
        return;
    }
    units += static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10));
    units += static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF));
}

} // namespace

InputInjector::InputInjector(
    EventPosting& newPosting, DisplayBounds& newDisplays, const SerialQueue& newClock)
    : posting(newPosting),
      displays(newDisplays),
      clock(newClock)
{
}

InputInjector::~InputInjector()
{
    releaseAll();
}

void InputInjector::move(double dx, double dy)
{
    clock.assertCurrent();
    if (!areFinite(dx, dy)) return;
    const Point base = currentPosition();
    const Point target = confined({base.x + dx, base.y + dy}, base);
    {
        // Position and count change together, and before the event shows, so that no sample of the cursor
        // ever pairs the new position with the old count.
        const std::lock_guard guard(pointerLock);
        lastPosted = target;
        lastPostedAt = clock.now();
        ++appliedMoves;
    }
    posting.postPointer(motionType(), target, roundedAwayFromZero(dx), roundedAwayFromZero(dy));
}

void InputInjector::button(MouseButton button, bool isDown, std::uint8_t clickCount)
{
    clock.assertCurrent();
    posting.postButton(button, isDown, currentPosition(), std::max<int>(clickCount, 1));
    if (isDown)
        buttonsDown.insert(button);
    else
        buttonsDown.erase(button);
}

void InputInjector::scroll(double dx, double dy, ScrollPhase phase, MomentumPhase momentum)
{
    clock.assertCurrent();
    if (!areFinite(dx, dy)) return;
    const int wholeX = takeWhole(scrollResidualX, dx);
    const int wholeY = takeWhole(scrollResidualY, dy);
    if (phase == ScrollPhase::ended || phase == ScrollPhase::cancelled || momentum == MomentumPhase::ended)
        scrollResidualX = scrollResidualY = 0; // the next gesture starts clean
    // Posted even without a whole pixel, so that changes of phase arrive.
    posting.postScroll(wholeX, wholeY, phase, momentum);
}

void InputInjector::key(std::uint16_t keyCode, bool isDown, KeyModifiers modifiers)
{
    clock.assertCurrent();
    const bool isModifier = KeyMapping::modifier(keyCode).has_value();
    auto& held = isModifier ? heldModifierKeys : heldKeys;
    if (isDown)
        held.insert(keyCode);
    else
        held.erase(keyCode);
    for (const auto code : heldModifierKeys) modifiers |= *KeyMapping::modifier(code);
    posting.postKey(keyCode, isDown, modifiers, isModifier);
}

void InputInjector::typeText(const std::string& utf8)
{
    clock.assertCurrent();
    std::u16string pending;
    const auto flush = [&] {
        if (!pending.empty()) posting.postUnicode(std::exchange(pending, {}));
    };
    std::string_view rest = utf8;
    while (const auto scalar = takeScalar(rest)) {
        if (*scalar == '\r' && rest.starts_with('\n')) continue; // the two are one line break
        if (*scalar == '\n') {
            flush();
            key(MacKey::returnKey, true, keyModifier::none);
            key(MacKey::returnKey, false, keyModifier::none);
            continue;
        }
        const std::size_t units = *scalar < 0x10000 ? 1 : 2;
        if (pending.size() + units > maxUnitsPerEvent) flush();
        appendUtf16(pending, *scalar);
    }
    flush();
}

void InputInjector::releaseAll()
{
    clock.assertCurrent();
    for (const auto held : std::exchange(buttonsDown, {})) button(held, false, 1);
    // Keys before modifiers: the other way round, what was a shortcut would end as a plain key.
    for (const auto held : std::set(heldKeys)) key(held, false, keyModifier::none);
    for (const auto held : std::set(heldModifierKeys)) key(held, false, keyModifier::none);
}

void InputInjector::confineTo(std::optional<std::uint32_t> displayID)
{
    clock.assertCurrent();
    display = displayID;
}

InputInjector::PointerState InputInjector::pointerState() const
{
    const std::lock_guard guard(pointerLock);
    if (!lastPosted || clock.now() - lastPostedAt >= positionTrust) return {{}, appliedMoves};
    return {lastPosted, appliedMoves};
}

Point InputInjector::currentPosition()
{
    if (const auto ours = pointerState().recentlyPosted) return *ours;
    return posting.cursorLocation().value_or(Point{});
}

// Where the pointer may go instead of target, coming from previous.
Point InputInjector::confined(Point target, Point previous)
{
    if (display) return clampedInto(displays.boundsOf(*display), target);

    std::optional<Rect> home;
    for (const auto id : displays.activeDisplays()) {
        const Rect bounds = displays.boundsOf(id);
        if (bounds.contains(target)) return target;
        // A pointer that is on no display, as after one was unplugged, comes back to the first one.
        if (!home || bounds.contains(previous)) home = bounds;
    }
    return home ? clampedInto(*home, target) : target;
}

PointerEventType InputInjector::motionType() const
{
    if (buttonsDown.contains(MouseButton::left)) return PointerEventType::leftDragged;
    if (buttonsDown.contains(MouseButton::right)) return PointerEventType::rightDragged;
    if (buttonsDown.contains(MouseButton::middle)) return PointerEventType::otherDragged;
    return PointerEventType::moved;
}

} // namespace pelorin
