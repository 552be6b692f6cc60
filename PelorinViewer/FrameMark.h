#pragma once

#include <cstdint>
#include <optional>

namespace pelorin {

// A number drawn into a moving picture, so that whoever sees the picture can tell distinct frames from
// repeated ones and a torn frame from a whole one: 24 square blocks in a row, most significant bit first,
// white for 1 and black for 0, in the top left corner and once more in the bottom left one. A block's side is
// the picture's width divided by 80, so the mark can be read at any scale.
struct FrameMark {
    static constexpr int bits = 24;

    std::uint32_t number = 0; // of the upper mark
    bool isWhole = false; // the lower mark says the same

    static int blockSide(int pictureWidth) { return pictureWidth / 80; }

    // lumaAt(x, y) gives brightness, 0 to 255.
    template <class LumaAt>
    static FrameMark read(int width, int height, LumaAt lumaAt)
    {
        const int side = blockSide(width);
        const auto numberAt = [&](int y) {
            std::uint32_t number = 0;
            for (int i = 0; i < bits; ++i)
                number = number << 1 | (lumaAt(i * side + side / 2, y) > 127 ? 1U : 0U);
            return number;
        };
        const auto upper = numberAt(side / 2);
        return {upper, upper == numberAt(height - side / 2 - 1)};
    }
};

} // namespace pelorin
