#pragma once

#include "PelorinHost/Linux/X11Cursor.h"
#include "PelorinHost/Platform/CursorSource.h"

namespace pelorin {

// The cursor of an X server. Lives on the cursor queue; owns its connection, and makes a new one after the
// server went and came back. The shape is asked for only once the server told that it changed.
class X11CursorSource final : public CursorSource {
public:
    explicit X11CursorSource(std::string display) : displayName(std::move(display)) {}

    std::optional<Point> position() override; // nothing while the server is gone
    std::optional<std::uint64_t> shapeFingerprint() override;
    std::optional<Shape> shape() override;

private:
    bool connect();
    const X11CursorImage* currentImage();
    X11Connection::EventHandler eventHandler();

    const std::string displayName;
    std::optional<X11Connection> connection;
    std::optional<X11CursorImage> image;
    bool hasNewShape = true; // and image is not of it yet
    std::uint32_t connections = 0; // made so far; another server counts its cursors anew
};

} // namespace pelorin
