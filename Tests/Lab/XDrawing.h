#pragma once

#include "PelorinHost/Linux/X11Connection.h"

#include <cstdint>
#include <string>

namespace pelorin::lab {

// An application on an X server that fills rectangles of the screen, and moves the pointer.
class XDrawing {
public:
    explicit XDrawing(const std::string& display);

    void fill(int x, int y, int width, int height, std::uint32_t rgb);
    void noise(int width, int height, std::uint32_t seed); // from the screen's top left corner
    void movePointer(int x, int y); // through XTEST, as a device does
    void setCursorSquare(int side, std::uint32_t rgb); // of the root window: opaque, hot spot 0, 0

private:
    void finish(); // the server has done it

    X11Connection connection;
    xcb_window_t canvas = 0; // covers the screen, over everything
    xcb_gcontext_t context = 0;
};

} // namespace pelorin::lab
