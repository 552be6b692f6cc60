#pragma once

#include "PelorinHost/Platform/Geometry.h"

#include <span>
#include <vector>

namespace pelorin {

inline bool isEmpty(const PixelRect& r)
{
    return r.width <= 0 || r.height <= 0;
}
PixelRect intersection(const PixelRect& a, const PixelRect& b); // {} when they don't meet
PixelRect unitedRect(
    const PixelRect& a, const PixelRect& b); // the smallest that holds both; an empty one counts nothing
PixelRect evenAligned(const PixelRect& r); // grown to even edges

// A few rectangles, none overlapping another, that cover all the given ones: what lies close is joined as
// long as little unchanged is taken in, and everything is once there are too many.
std::vector<PixelRect> mergedDamage(std::span<const PixelRect> rects);

} // namespace pelorin
