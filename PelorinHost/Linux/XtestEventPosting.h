#pragma once

#include "PelorinHost/Linux/ScrollClicks.h"
#include "PelorinHost/Linux/X11TextKeys.h"
#include "PelorinHost/Linux/XtestDevice.h"
#include "PelorinHost/Platform/EventPosting.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <deque>
#include <map>
#include <set>
#include <variant>

namespace pelorin {

// Posts events through XTEST. Events stand in one line, because text that needs spare keycodes takes its
// time; what comes after it waits behind it. Only pointer moves overtake, while no pointer event stands in
// the line. Connects at the first event, and again, at most once a second, when the server is gone. Queue:
// the session's. Owns the device. Owned by the HostSession.
class XtestEventPosting final : public EventPosting {
public:
    XtestEventPosting(QueueRef queue, std::string display); // as in $DISPLAY; empty takes that variable
    ~XtestEventPosting() override;

    void postPointer(PointerEventType type, Point target, int rawDeltaX, int rawDeltaY) override;
    void postButton(MouseButton button, bool isDown, Point position, int clickState) override;
    void postScroll(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum) override;
    void postKey(std::uint16_t keyCode, bool isDown, KeyModifiers flags, bool isModifier) override;
    void postUnicode(const std::u16string& text) override;

    std::optional<Point> cursorLocation() override;

    // Lets go of what is held, and takes the characters off spare keycodes, that a host left behind on this
    // server, ours or one that was killed.
    static void tidy(const std::string& display);

private:
    struct Move {
        Point target;
    };
    struct Button {
        std::uint8_t xButton = 0;
        bool isDown = false;
        Point position;
    };
    struct Key {
        std::uint16_t keyCode = 0;
        bool isDown = false;
        KeyModifiers flags;
        bool isModifier = false;
    };
    struct Text {
        std::u16string units;
        std::size_t next = 0;
    };
    using Event = std::variant<Move, Button, ScrollClicks::Clicks, Key, Text>;

    static bool isPointerEvent(const Event& event);
    bool isConnected();
    void loseDevice();
    void enqueue(Event event, bool isRelease = false);
    void pump();
    void pumpAfter(Duration delay);

    // Each answers how long to wait before it can be carried out further; nothing when it is done.
    using Wait = std::optional<Duration>;
    Wait carryOut(Move& move);
    Wait carryOut(Button& button);
    Wait carryOut(ScrollClicks::Clicks& clicks);
    Wait carryOut(Key& key);
    Wait carryOut(Text& text);

    void pressKey(const Key& key);
    void releaseKey(std::uint16_t keyCode);
    void changeModifier(const Key& key);

    Wait type(char32_t character);
    void strike(const X11TextKeys::Stroke& stroke);
    bool loadTextKeys();
    void readLockState();
    void returnSpareKeys();

    const QueueRef queue;
    const std::string display;
    ScrollClicks scrollClicks;
    bool isUnreachableLogged = false;
    bool isOverflowLogged = false;
    bool isUntypeableLogged = false;
    std::optional<SteadyTime> lastAttempt;

    std::deque<Event> line;
    std::size_t pointerEventsInLine = 0;

    // Of the present server:
    std::unique_ptr<XtestDevice> device;
    std::set<std::uint16_t> modifiersDown; // macOS key codes
    std::map<std::uint16_t, std::vector<XtestDevice::Keycode>> keysDown; // with the modifiers each brought
    std::optional<X11TextKeys> textKeys;
    SteadyTime nextSpareStroke;
    int strokesInARow = 0;
    SteadyTime lockStateReadAt;
    bool isCapsLockOn = false;
    bool isFirstGroup = true;

    Subscription pumpTimer;
    Subscription readable; // after the device, whose descriptor it watches
};

} // namespace pelorin
