#pragma once

#include "PelorinHost/Linux/X11Connection.h"

#include <cstdint>
#include <string>

namespace pelorin::lab {

// An application on an X server that fills rectangles of the screen, and moves the pointer. Once a call
// returns, the server has done it and sent out all events about it.
class XDrawing {
public:
    explicit XDrawing(const std::string& display);

    void fill(int x, int y, int width, int height, std::uint32_t rgb);
    void noise(int width, int height, std::uint32_t seed); // from the screen's top left corner
    void movePointer(int x, int y); // through XTEST, as a device does
    void setCursorSquare(int side, std::uint32_t rgb); // of the root window: opaque, hot spot 0, 0

private:
    void finish();

    X11Connection connection;
    xcb_window_t canvas = 0; // covers the screen, over everything
    xcb_gcontext_t context = 0;
};

// Returns once the server has done all that was asked of it so far, by anybody, and sent out the events.
void waitForServer(const X11Connection& connection);

} // namespace pelorin::lab
