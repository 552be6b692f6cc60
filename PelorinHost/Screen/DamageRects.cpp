#include "PelorinHost/Screen/DamageRects.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace pelorin {
namespace {

constexpr std::size_t mostRects = 8; // each costs a request to the display server and a pass of its own
// Pixels that may be taken in needlessly to save a rectangle: about what such a pass costs.
constexpr std::int64_t joiningWaste = 64 * 64;

std::int64_t area(const PixelRect& r)
{
    return std::int64_t{r.width} * r.height;
}

// What joining the two takes in that neither covers; negative when they overlap much.
std::int64_t wasteOfJoining(const PixelRect& a, const PixelRect& b)
{
    return area(unitedRect(a, b)) - area(a) - area(b);
}

bool overlap(const PixelRect& a, const PixelRect& b)
{
    return !isEmpty(intersection(a, b));
}

// Adds rect, joined with what it is close to or overlaps.
void take(std::vector<PixelRect>& rects, PixelRect rect)
{
    for (std::size_t i = 0; i < rects.size();) {
        if (!overlap(rects[i], rect) && wasteOfJoining(rects[i], rect) > joiningWaste) {
            ++i;
            continue;
        }
        rect = unitedRect(rects[i], rect);
        rects.erase(rects.begin() + static_cast<std::ptrdiff_t>(i));
        i = 0; // grown, it may reach others now
    }
    rects.push_back(rect);
}

void joinCheapestPair(std::vector<PixelRect>& rects)
{
    std::size_t first = 0;
    std::size_t second = 1;
    auto cheapest = std::numeric_limits<std::int64_t>::max();
    for (std::size_t i = 0; i < rects.size(); ++i)
        for (std::size_t j = i + 1; j < rects.size(); ++j)
            if (const auto waste = wasteOfJoining(rects[i], rects[j]); waste < cheapest) {
                cheapest = waste;
                first = i;
                second = j;
            }
    const auto joined = unitedRect(rects[first], rects[second]);
    rects.erase(rects.begin() + static_cast<std::ptrdiff_t>(second));
    rects.erase(rects.begin() + static_cast<std::ptrdiff_t>(first));
    take(rects, joined);
}

} // namespace

PixelRect intersection(const PixelRect& a, const PixelRect& b)
{
    const int left = std::max(a.x, b.x);
    const int top = std::max(a.y, b.y);
    const PixelRect common{left, top, std::min(a.x + a.width, b.x + b.width) - left,
        std::min(a.y + a.height, b.y + b.height) - top};
    return isEmpty(common) ? PixelRect{} : common;
}

PixelRect unitedRect(const PixelRect& a, const PixelRect& b)
{
    if (isEmpty(a)) return b;
    if (isEmpty(b)) return a;
    const int left = std::min(a.x, b.x);
    const int top = std::min(a.y, b.y);
    return {left, top, std::max(a.x + a.width, b.x + b.width) - left,
        std::max(a.y + a.height, b.y + b.height) - top};
}

PixelRect evenAligned(const PixelRect& r)
{
    const int left = r.x & ~1;
    const int top = r.y & ~1;
    return {left, top, ((r.x + r.width + 1) & ~1) - left, ((r.y + r.height + 1) & ~1) - top};
}

std::vector<PixelRect> mergedDamage(std::span<const PixelRect> rects)
{
    std::vector<PixelRect> merged;
    for (const auto& rect : rects) {
        if (isEmpty(rect)) continue;
        take(merged, rect);
        if (merged.size() > mostRects) joinCheapestPair(merged);
    }
    return merged;
}

} // namespace pelorin
