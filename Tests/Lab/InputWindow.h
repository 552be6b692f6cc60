#pragma once

#include "PelorinHost/Linux/X11Connection.h"

#include <string>
#include <utility>
#include <vector>

namespace pelorin::lab {

// An application that covers the screen, has the focus and writes down what input reaches it: "key 38 down",
// "button 1 up at 10,20", "motion 10,20". Repetitions of a held
// key and motions to where the pointer is already are left out.
class InputWindow {
public:
    explicit InputWindow(const std::string& display);

    // What came since the last question, up to and with the given event; waits for it. Ends with "timeout"
    // when it does not come.
    std::vector<std::string> eventsUntil(const std::string& lastEvent);
    // What came since, without waiting for more than what the server has already carried out.
    std::vector<std::string> eventsNow();
    bool isKeyDown(std::uint8_t keycode) const; // in the server's own record
    std::uint16_t pointerMask() const; // buttons and modifiers that are down

private:
    void take(const xcb_generic_event_t& event);
    X11Connection connection;
    std::vector<std::string> events;
    std::uint8_t keyDown = 0; // the last one, to know a repetition
    std::pair<std::int16_t, std::int16_t> pointer{-1, -1};
};

} // namespace pelorin::lab
