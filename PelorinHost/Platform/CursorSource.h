#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/Geometry.h"

#include <cstdint>
#include <optional>

namespace pelorin {

// The cursor as the desktop has it. Called on the cursor queue.
class CursorSource {
public:
    virtual ~CursorSource() = default;

    struct Shape {
        int widthPx = 0;
        int heightPx = 0;
        int hotX = 0;
        int hotY = 0;
        Bytes png; // RGBA
    };

    virtual std::optional<Point> position() = 0; // global points
    virtual std::optional<std::uint64_t> shapeFingerprint() = 0; // changes whenever the shape does; cheap
    virtual std::optional<Shape> shape() = 0;
};

} // namespace pelorin
