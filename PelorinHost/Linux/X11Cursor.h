#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Linux/X11ScreenGrabber.h"
#include "PelorinHost/Platform/Geometry.h"

#include <optional>
#include <vector>

namespace pelorin {

// The cursor's image as XFIXES gives it.
struct X11CursorImage {
    std::uint32_t serial = 0; // differs for each cursor of one server
    int widthPx = 0;
    int heightPx = 0;
    int hotX = 0;
    int hotY = 0;
    std::vector<std::uint32_t> argb; // colours already multiplied by alpha
};

// Each is one round trip, and nothing when the server is gone or does not answer. Events met on the way go to
// onEvent.
std::optional<X11CursorImage> queryCursorImage(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent = {});
struct RootPosition {
    int x = 0;
    int y = 0;
};
std::optional<RootPosition> queryPointer(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent = {});

void watchCursorImage(const X11Connection& connection); // XFIXES must have been asked for its version
bool isCursorImageChange(const X11Connection& connection, const xcb_generic_event_t& event);

// The cursor as part of the pictures: knows where it was drawn last, asks for events when it moves, and draws
// it over grabbed pixels. Lives on the capture queue, owned by a capture stream.
class X11DrawnCursor {
public:
    // connection outlives us; onEvent is called within our operations.
    X11DrawnCursor(const X11Connection& connection, X11Connection::EventHandler onEvent);
    ~X11DrawnCursor(); // asks for no more events
    X11DrawnCursor(const X11DrawnCursor&) = delete;
    X11DrawnCursor& operator=(const X11DrawnCursor&) = delete;

    // Whether the cursor moved or changed its shape.
    bool takes(const xcb_generic_event_t& event);
    // Where it is now; returns what looks different for that, in pixels of the root window.
    std::vector<PixelRect> follow();
    // Over pixels of that part of the root window.
    void drawOver(const X11ScreenGrabber::Grabbed& pixels, const PixelRect& part) const;

private:
    void selectMotion(bool isWanted);

    const X11Connection& connection;
    X11Connection::EventHandler onEvent;
    int xinputOpcode = -1; // -1: the server has no XInput 2
    std::optional<X11CursorImage> image;
    bool hasNewShape = true; // and image is not of it yet
    PixelRect place; // {} before it was drawn
};

} // namespace pelorin
