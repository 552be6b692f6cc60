#pragma once

#include <cstdint>

namespace pelorin {

// A rectangle of 32-bit pixels, blue in the lowest byte, the highest one ignored.
struct BgrxPixels {
    const std::uint8_t* first = nullptr;
    int stride = 0; // bytes
};

// Where a rectangle of an NV12 picture begins.
struct Nv12Pixels {
    std::uint8_t* luma = nullptr;
    std::uint8_t* chroma = nullptr; // Cb, Cr interleaved
    int lumaStride = 0; // bytes
    int chromaStride = 0;
};

// BT.709, video range, rounded to nearest. Chroma is the mean of its 2x2 pixels, so it sits in their middle.
// Width and height are even. Runs on the widest vectors that the processor has.
void convertToNv12(BgrxPixels source, int width, int height, Nv12Pixels target);

} // namespace pelorin
