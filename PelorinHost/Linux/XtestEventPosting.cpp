#include "PelorinHost/Linux/XtestEventPosting.h"

#include "PelorinCore/Keys/KeyMapping.h"
#include "PelorinCore/Keys/MacKey.h"
#include "PelorinHost/Linux/X11KeyMap.h"
#include "PelorinNet/Log.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

const Log logger("input");

constexpr auto reconnectDelay = 1s;
// Applications that are given a new map with every character lose some at 1 ms, and none at 4.
constexpr auto spareStrokeDelay = 4ms;
constexpr int maxStrokesInARow
    = 64; // of the layout's own keys; then the other events' applications get a turn
constexpr auto strokesPause = 4ms;
constexpr auto unwritableDelay = 4ms; // until a server that takes nothing is asked again
constexpr auto lockStateAge = 50ms; // how long Caps Lock and the layout group are believed
// Pieces of text are at most 16 units, so a full line is 2 MiB of text at most.
constexpr std::size_t maxLine = 65'536;

constexpr std::array<XtestDevice::Keysym, 2> noKeysyms{};
constexpr std::uint16_t layoutGroupMask = 0x6000;

std::uint8_t xButton(MouseButton button)
{
    switch (button) {
    case MouseButton::left:
        return 1;
    case MouseButton::middle:
        return 2;
    case MouseButton::right:
        return 3;
    }
    return 1;
}

// The keys to press for flags whose own key nobody holds. Caps Lock is no flag to press: it would toggle.
constexpr struct {
    KeyModifiers flag;
    std::uint16_t keyCode;
} flagKeys[] = {{keyModifier::shift, MacKey::shift}, {keyModifier::control, MacKey::control},
    {keyModifier::option, MacKey::option}, {keyModifier::command, MacKey::command}};

char32_t takeScalar(const std::u16string& units, std::size_t& next)
{
    const char32_t first = units[next++];
    const bool isPair = first >= 0xD800 && first < 0xDC00 && next < units.size() && units[next] >= 0xDC00
        && units[next] < 0xE000;
    return isPair ? 0x10000 + ((first - 0xD800) << 10) + (units[next++] - 0xDC00) : first;
}

} // namespace

XtestEventPosting::XtestEventPosting(QueueRef newQueue, std::string newDisplay)
    : queue(std::move(newQueue)),
      display(std::move(newDisplay))
{
}

XtestEventPosting::~XtestEventPosting()
{
    if (device && !device->isBroken()) returnSpareKeys();
}

void XtestEventPosting::postPointer(PointerEventType, Point target, int, int)
{
    queue->assertCurrent();
    if (!isConnected()) return;
    if (pointerEventsInLine == 0 && device->isWritable()) {
        device->movePointer(target);
        return device->flush();
    }
    // Behind the buttons, or a click would become a drag; of a row of moves the last one counts.
    auto* last = line.empty() ? nullptr : std::get_if<Move>(&line.back());
    if (last)
        last->target = target;
    else
        enqueue(Move{target});
}

void XtestEventPosting::postButton(MouseButton button, bool isDown, Point position, int)
{
    enqueue(Button{xButton(button), isDown, position}, !isDown);
}

void XtestEventPosting::postScroll(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum)
{
    const auto clicks = scrollClicks.add(wholeX, wholeY, phase, momentum);
    if (clicks != ScrollClicks::Clicks{}) enqueue(clicks);
}

void XtestEventPosting::postKey(std::uint16_t keyCode, bool isDown, KeyModifiers flags, bool isModifier)
{
    if (!x11KeycodeAt(keyCode)) {
        if (!std::exchange(isUntypeableLogged, true))
            logger.warning("key {} has no place on this keyboard and is skipped, as others may be", keyCode);
        return;
    }
    enqueue(Key{keyCode, isDown, flags, isModifier}, !isDown);
}

void XtestEventPosting::postUnicode(const std::u16string& text)
{
    if (!text.empty()) enqueue(Text{text, 0});
}

std::optional<Point> XtestEventPosting::cursorLocation()
{
    queue->assertCurrent();
    if (!isConnected()) return std::nullopt;
    const auto state = device->pointerState();
    if (!state) return std::nullopt;
    return state->position;
}

void XtestEventPosting::tidy(const std::string& display)
{
    const auto device = XtestDevice::open(display);
    if (!device) return;
    (*device)->releaseAll();
    const auto mapping = (*device)->keyboardMapping();
    if (!mapping) return;
    const X11TextKeys keys(mapping->firstKeycode, mapping->keysymsPerKeycode, mapping->keysyms);
    for (const auto keycode : keys.assignedBefore(SteadyTime::max()))
        (*device)->setKeysyms(keycode, noKeysyms);
    (*device)->settle();
}

// Whether there is a server to post to.
bool XtestEventPosting::isConnected()
{
    if (device && device->isBroken()) loseDevice();
    if (device) return true;
    if (lastAttempt && queue->now() - *lastAttempt < reconnectDelay) return false;

    auto opened = XtestDevice::open(display);
    lastAttempt = queue->now();
    if (!opened) {
        if (!std::exchange(isUnreachableLogged, true))
            logger.warning("input is skipped: {}; the next event tries again", opened.error().description);
        return false;
    }
    if (std::exchange(isUnreachableLogged, false)) logger.info("the X server is back and takes input");
    device = std::move(*opened);
    readable = queue->whenReadable(device->fileDescriptor(), [this] {
        device->takeEvents();
        if (device->isBroken()) loseDevice();
    });
    return true;
}

void XtestEventPosting::loseDevice()
{
    logger.warning("the X server is gone; input is skipped until it is back");
    isUnreachableLogged = true;
    readable.cancel();
    pumpTimer.cancel();
    device.reset();
    line.clear();
    pointerEventsInLine = 0;
    modifiersDown.clear();
    keysDown.clear();
    textKeys.reset();
    lockStateReadAt = {};
}

bool XtestEventPosting::isPointerEvent(const Event& event)
{
    return std::holds_alternative<Button>(event) || std::holds_alternative<Move>(event);
}

// Releases find room beyond the limit, or what is held down would stay so.
void XtestEventPosting::enqueue(Event event, bool isRelease)
{
    queue->assertCurrent();
    if (!isConnected()) return;
    if (line.size() >= (isRelease ? 2 * maxLine : maxLine)) {
        if (!std::exchange(isOverflowLogged, true))
            logger.warning("too much input waits behind a long text; what comes now is dropped");
        return;
    }
    pointerEventsInLine += isPointerEvent(event);
    line.push_back(std::move(event));
    if (!pumpTimer) pump();
}

void XtestEventPosting::pump()
{
    while (!line.empty()) {
        if (device->isBroken()) return loseDevice();
        if (!device->isWritable()) return pumpAfter(unwritableDelay);
        const Wait wait = std::visit([this](auto& event) { return carryOut(event); }, line.front());
        if (wait) return pumpAfter(*wait);
        pointerEventsInLine -= isPointerEvent(line.front());
        line.pop_front();
    }
    isOverflowLogged = false;
    device->flush();
}

void XtestEventPosting::pumpAfter(Duration delay)
{
    if (device->isWritable()) device->flush(); // which otherwise waits
    pumpTimer = queue->after(delay, [this] {
        pumpTimer = {};
        pump();
    });
}

XtestEventPosting::Wait XtestEventPosting::carryOut(Move& move)
{
    device->movePointer(move.target);
    return std::nullopt;
}

XtestEventPosting::Wait XtestEventPosting::carryOut(Button& button)
{
    device->movePointer(button.position); // X presses wherever the pointer is by now
    device->setButton(button.xButton, button.isDown);
    return std::nullopt;
}

XtestEventPosting::Wait XtestEventPosting::carryOut(ScrollClicks::Clicks& clicks)
{
    const auto click = [this](int count, std::uint8_t positive, std::uint8_t negative) {
        for (int i = 0; i < std::abs(count); ++i) {
            device->setButton(count > 0 ? positive : negative, true);
            device->setButton(count > 0 ? positive : negative, false);
        }
    };
    click(clicks.up, 4, 5);
    click(clicks.left, 6, 7);
    return std::nullopt;
}

XtestEventPosting::Wait XtestEventPosting::carryOut(Key& key)
{
    lockStateReadAt = {}; // any key may be the one that locks
    if (key.isModifier)
        changeModifier(key);
    else if (key.isDown)
        pressKey(key);
    else
        releaseKey(key.keyCode);
    return std::nullopt;
}

void XtestEventPosting::changeModifier(const Key& key)
{
    const auto keycode = *x11KeycodeAt(key.keyCode);
    if (key.isDown && modifiersDown.insert(key.keyCode).second) device->hold(keycode);
    if (!key.isDown && modifiersDown.erase(key.keyCode)) device->letGo(keycode);
}

// With the modifiers that its flags name and nobody holds, until it is released.
void XtestEventPosting::pressKey(const Key& key)
{
    if (keysDown.contains(key.keyCode)) return; // the server repeats a held key by itself
    KeyModifiers held;
    for (const auto modifier : modifiersDown) held |= *KeyMapping::modifier(modifier);

    auto& brought = keysDown[key.keyCode];
    for (const auto& [flag, keyCode] : flagKeys)
        if (key.flags.contains(flag) && !held.contains(flag)) brought.push_back(*x11KeycodeAt(keyCode));
    for (const auto modifier : brought) device->hold(modifier);
    device->hold(*x11KeycodeAt(key.keyCode));
}

void XtestEventPosting::releaseKey(std::uint16_t keyCode)
{
    const auto found = keysDown.find(keyCode);
    if (found == keysDown.end()) return;
    device->letGo(*x11KeycodeAt(keyCode));
    for (auto modifier = found->second.rbegin(); modifier != found->second.rend(); ++modifier)
        device->letGo(*modifier);
    keysDown.erase(found);
}

XtestEventPosting::Wait XtestEventPosting::carryOut(Text& text)
{
    while (text.next < text.units.size()) {
        std::size_t after = text.next;
        if (const Wait wait = type(takeScalar(text.units, after))) return wait;
        text.next = after;
    }
    return std::nullopt;
}

XtestEventPosting::Wait XtestEventPosting::type(char32_t character)
{
    if (!X11TextKeys::isTypeable(character) || !loadTextKeys()) return std::nullopt;
    readLockState();
    const auto own = isFirstGroup ? textKeys->onLayout(character) : std::nullopt;
    if (own) {
        if (strokesInARow == maxStrokesInARow) {
            strokesInARow = 0;
            return strokesPause;
        }
        ++strokesInARow;
        strike(*own);
        return std::nullopt;
    }

    const auto now = queue->now();
    if (!textKeys->hasSpares()) {
        if (!std::exchange(isUntypeableLogged, true))
            logger.warning("the keyboard layout leaves no keycode free to type other characters with");
        return std::nullopt;
    }
    if (now < nextSpareStroke) return nextSpareStroke - now;
    const auto placed = textKeys->place(character, now);
    if (!placed) return textKeys->nextFree() - now;
    if (placed->newKeysyms) device->setKeysyms(placed->stroke.keycode, *placed->newKeysyms);
    strike(placed->stroke);
    nextSpareStroke = now + spareStrokeDelay;
    strokesInARow = 0;
    return std::nullopt;
}

// With shift as the character needs it, whatever we hold. Other held modifiers act on text as on keys.
void XtestEventPosting::strike(const X11TextKeys::Stroke& stroke)
{
    const auto left = *x11KeycodeAt(MacKey::shift);
    const auto right = *x11KeycodeAt(MacKey::rightShift);
    const bool wantsShift = stroke.isShifted != (stroke.isLetter && isCapsLockOn);
    const bool hasShift = device->isHeld(left) || device->isHeld(right);
    if (stroke.ignoresShift || wantsShift == hasShift) return device->tapKey(stroke.keycode);
    if (wantsShift) {
        device->hold(left);
        device->tapKey(stroke.keycode);
        device->letGo(left);
        return;
    }
    const auto lift = [&](bool isDown) {
        for (const auto shift : {left, right})
            if (device->isHeld(shift)) device->fakeKey(shift, isDown);
    };
    lift(false);
    device->tapKey(stroke.keycode);
    lift(true);
}

// Once, and again when another client changed the mapping.
bool XtestEventPosting::loadTextKeys()
{
    if (!device->takeMappingChange() && textKeys) return true;
    const auto mapping = device->keyboardMapping();
    if (!mapping) return textKeys.has_value();
    if (textKeys)
        textKeys->reload(mapping->firstKeycode, mapping->keysymsPerKeycode, mapping->keysyms);
    else
        textKeys.emplace(mapping->firstKeycode, mapping->keysymsPerKeycode, mapping->keysyms);
    return true;
}

void XtestEventPosting::readLockState()
{
    const auto now = queue->now();
    if (lockStateReadAt != SteadyTime{} && now - lockStateReadAt < lockStateAge) return;
    lockStateReadAt = now;
    const auto state = device->pointerState();
    if (!state) return;
    isCapsLockOn = state->modifiers & XCB_MOD_MASK_LOCK;
    isFirstGroup = (state->modifiers & layoutGroupMask) == 0;
}

// Gives the spare keycodes back, but for those just pressed: an application that looks one up now must still
// find its character. Those are left to tidy, or to whoever types next.
void XtestEventPosting::returnSpareKeys()
{
    if (!textKeys) return;
    for (const auto keycode : textKeys->assignedBefore(queue->now() - X11TextKeys::reuseDelay))
        device->setKeysyms(keycode, noKeysyms);
}

} // namespace pelorin
