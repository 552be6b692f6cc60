#pragma once

#include "PelorinHost/Platform/Geometry.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <cstdint>
#include <vector>

namespace pelorin {

// When the stages before the encoder were done with a picture.
struct CaptureTimes {
    SteadyTime damaged; // the screen changed
    SteadyTime grabbed; // pixels in hand
    SteadyTime converted; // scaled and in 4:2:0
};

// One picture, NV12, BT.709, video range (luma 16 to 235): a full-size luma plane and a half-size plane of
// interleaved Cb Cr. Width and height are even. The pixels belong to the capture backend, which paints the
// next picture into the same place: they hold still while the capture queue is inside a callback or a task of
// ours, never beyond.
struct PixelBuffer {
    int widthPx = 0;
    int heightPx = 0;
    const std::uint8_t* luma = nullptr;
    const std::uint8_t* chroma = nullptr;
    int lumaStride = 0; // bytes
    int chromaStride = 0;

    // Raised by one for each picture of a stream. What changed since the picture before it, in even-aligned
    // rectangles; empty when nothing did. A picture that is given again keeps its number, without damage.
    std::uint64_t sequence = 0;
    std::vector<PixelRect> damage;
    CaptureTimes times;
};

} // namespace pelorin
