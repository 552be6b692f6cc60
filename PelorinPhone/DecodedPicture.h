#pragma once

#include <array>
#include <cstdint>
#include <memory>

namespace pelorin {

// One decoded picture in planar 4:2:0, BT.709. A value: copies share the pixels, which nobody writes any
// more, so it may go to any thread.
struct DecodedPicture {
    int widthPx = 0;
    int heightPx = 0;
    std::array<const std::uint8_t*, 3>
        planes{}; // Y, U, V; the chroma planes half as wide and high, rounded up
    std::array<int, 3> strides{}; // bytes from row to row
    bool isFullRange = false; // luma 0 to 255 instead of 16 to 235
    std::shared_ptr<const void> pixels; // keeps the planes alive

    std::uint8_t lumaAt(int x, int y) const { return planes[0][std::ptrdiff_t{y} * strides[0] + x]; }
};

} // namespace pelorin
