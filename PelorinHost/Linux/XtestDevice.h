#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Platform/Geometry.h"

#include <array>
#include <bitset>
#include <optional>
#include <span>
#include <vector>

namespace pelorin {

// The keyboard and pointer that XTEST lends us, on a connection of its own. Keys are held by count, so that
// two who need the same modifier don't release it under each other; what is still held at the end is
// released. Requests are gathered until flush. Owned by XtestEventPosting, on its queue.
class XtestDevice {
public:
    using Keycode = std::uint8_t;
    using Keysym = std::uint32_t;

    static Result<std::unique_ptr<XtestDevice>, PlatformError> open(const std::string& display);
    ~XtestDevice();
    XtestDevice(const XtestDevice&) = delete;
    XtestDevice& operator=(const XtestDevice&) = delete;

    void movePointer(Point target);
    void setButton(std::uint8_t xButton, bool isDown);
    void hold(Keycode keycode);
    void letGo(Keycode keycode); // of one hold; without one, nothing
    bool isHeld(Keycode keycode) const { return holds[keycode] > 0; }
    void tapKey(Keycode keycode);
    void fakeKey(Keycode keycode, bool isDown); // past the counts

    // Whatever XTEST holds down, by whomever it was pressed.
    void releaseAll();

    struct PointerState {
        Point position;
        std::uint16_t modifiers = 0; // X's mask of modifiers and layout group
    };
    std::optional<PointerState> pointerState(); // waits for the server, not for long

    struct KeyboardMapping {
        Keycode firstKeycode = 0;
        int keysymsPerKeycode = 0;
        std::vector<Keysym> keysyms;
    };
    std::optional<KeyboardMapping> keyboardMapping(); // waits as above
    void setKeysyms(Keycode keycode, std::span<const Keysym> keysyms);

    // Whether the keyboard mapping was changed since the last question, by anybody but setKeysyms.
    bool takeMappingChange();

    void flush() const { connection.flush(); }
    bool settle() const;
    bool isBroken() const { return connection.isBroken(); }
    bool isWritable() const { return connection.isWritable(); }
    int fileDescriptor() const { return connection.fileDescriptor(); }
    void takeEvents();

private:
    explicit XtestDevice(X11Connection newConnection) : connection(std::move(newConnection)) {}
    void fake(std::uint8_t type, std::uint8_t detail, std::int16_t x = 0, std::int16_t y = 0);
    void handleEvent(const xcb_generic_event_t& event);

    X11Connection connection;
    std::array<int, 256> holds{};
    std::bitset<256> buttonsDown;
    std::bitset<256> remappedByUs;
    bool isMappingChanged = false;
};

} // namespace pelorin
