#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelorin::lab {

// A picture in memory, three bytes (red, green, blue) a pixel.
struct Picture {
    int widthPx = 0;
    int heightPx = 0;
    std::vector<std::uint8_t> pixels;

    const std::uint8_t* at(int x, int y) const
    {
        return &pixels[static_cast<std::size_t>(y * widthPx + x) * 3];
    }
    bool isEmpty() const { return pixels.empty(); }

    static Picture ofScreen(
        const std::string& display); // what the X server shows; empty when it can't be had
    static Picture ofPNG(const std::string& path); // empty when it can't be read
    Picture scaledTo(int newWidthPx, int newHeightPx) const; // averaging
};

// How much of two pictures of one size is the same: the share (0 to 1) of 16x16 blocks whose mean luma
// difference stays below what a lossy codec does to text.
double shareOfEqualBlocks(const Picture& a, const Picture& b);

// The share of 16x16 blocks that show anything but one flat colour: a blank screen has none.
double shareOfLivelyBlocks(const Picture& picture);

} // namespace pelorin::lab
