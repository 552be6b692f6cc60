#pragma once

#include "PelorinPhone/DecodedPicture.h"

#include <vector>

namespace pelorin::lab {

// A picture to draw luma into; chroma is neutral.
class TestPicture {
public:
    TestPicture(int width, int height, std::uint8_t luma = 16) : widthPx(width), heightPx(height)
    {
        const auto chroma
            = static_cast<std::size_t>((width + 1) / 2) * static_cast<std::size_t>((height + 1) / 2);
        bytes.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), luma);
        bytes.resize(bytes.size() + 2 * chroma, 128);
    }

    TestPicture& fill(int x, int y, int width, int height, std::uint8_t luma)
    {
        for (int row = y; row < y + height; ++row)
            for (int column = x; column < x + width; ++column)
                bytes[static_cast<std::size_t>(row * widthPx + column)] = luma;
        return *this;
    }

    DecodedPicture get() const
    {
        const auto copy = std::make_shared<std::vector<std::uint8_t>>(bytes);
        const int chromaWidth = (widthPx + 1) / 2;
        const auto* chroma = copy->data() + std::ptrdiff_t{widthPx} * heightPx;
        DecodedPicture picture;
        picture.widthPx = widthPx;
        picture.heightPx = heightPx;
        picture.planes = {copy->data(), chroma, chroma + std::ptrdiff_t{chromaWidth} * ((heightPx + 1) / 2)};
        picture.strides = {widthPx, chromaWidth, chromaWidth};
        picture.pixels = copy;
        return picture;
    }

private:
    int widthPx;
    int heightPx;
    std::vector<std::uint8_t> bytes;
};

} // namespace pelorin::lab
