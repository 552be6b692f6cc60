#pragma once

#include "PelorinHost/Platform/Geometry.h"
#include "PelorinHost/Screen/PixelConversion.h"

#include <vector>

namespace pelorin {

// Scales 32-bit pixels so that each pixel of the target is the mean of the area it covers, which keeps thin
// lines and small letters readable at any reduction. Each target pixel depends on those source pixels alone,
// so a part comes out the same as within the whole. Lives wherever its owner does; keeps scratch memory.
class AreaScaler {
public:
    AreaScaler(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight);

    // The part of the target that any pixel of that part of the source shows in. The part is not empty and
    // within the source.
    PixelRect targetRectOf(const PixelRect& sourceRect) const;
    PixelRect sourceRectOf(const PixelRect& targetRect) const;
    // source: the first pixel of sourceRectOf(targetRect); target: rows of targetRect, close together.
    void scale(BgrxPixels source, const PixelRect& targetRect, std::uint8_t* target);
    static constexpr int bytesReadPastEnd = 64; // after the last row of the source

private:
    // What each pixel along one direction of the target is made of.
    struct Axis {
        Axis(int sourceLength, int targetLength, int weightSum);
        const std::uint16_t* weightsOf(int target) const { return weights.data() + target * taps; }

        int sourceLength;
        int targetLength;
        int taps; // what the greediest pixel needs, and even; those others don't need weigh nothing
        std::vector<int> first; // source pixel of each target pixel
        std::vector<int> counts; // of source pixels of each target pixel
        std::vector<std::uint16_t> weights; // taps for each target pixel
    };

    bool isHalving() const
    {
        return columns.sourceLength == 2 * columns.targetLength && rows.sourceLength == 2 * rows.targetLength;
    }

    Axis columns;
    Axis rows;
    std::vector<std::uint16_t> spreadWeights; // of columns, each four times: for the channels of a pixel
    std::vector<std::uint16_t> mixedRow; // one target row, not yet narrowed
};

} // namespace pelorin
