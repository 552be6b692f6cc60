#pragma once

#include "PelorinHost/Platform/PixelBuffer.h"
#include "PelorinHost/Screen/PixelConversion.h"

#include <memory>
#include <vector>

namespace pelorin {

// Paints the pixels of a display, scaled to a picture's size, into one NV12 picture, rectangle by rectangle;
// the result is the same as painting the whole. Large reductions halve by 2x2 means first, the rest is
// bilinear. Owns the picture's pixels, together with the pictures it has given out. Lives on the capture
// queue, owned by a capture stream.
class PicturePainter {
public:
    // Both sizes in pixels; the picture's is even.
    PicturePainter(int sourceWidth, int sourceHeight, int pictureWidth, int pictureHeight);

    PixelRect wholePicture() const { return {0, 0, pictureWidth, pictureHeight}; }
    // The even-aligned part of the picture that shows anything of that part of the display; {} for none.
    PixelRect pictureRectOf(const PixelRect& sourceRect) const;
    // The part of the display that painting that even-aligned part of the picture needs.
    PixelRect sourceRectOf(const PixelRect& pictureRect) const;
    // source: the first pixel of sourceRectOf(pictureRect). Some bytes after its last row may be read.
    void paint(const PixelRect& pictureRect, BgrxPixels source);
    static constexpr int bytesReadPastEnd = 64;

    // The picture as painted so far; sequence, damage and times are the caller's to fill in.
    std::shared_ptr<PixelBuffer> picture() const;

private:
    struct Canvas;
    bool isScaled() const { return levelWidth != pictureWidth || levelHeight != pictureHeight; }
    bool isEnlarged() const { return levelWidth < pictureWidth || levelHeight < pictureHeight; }
    PixelRect levelRectOf(const PixelRect& pictureRect) const;
    Nv12Pixels target(const PixelRect& pictureRect) const;
    BgrxPixels halved(BgrxPixels source, PixelRect sourceRect);
    BgrxPixels scaled(BgrxPixels level, const PixelRect& levelRect, const PixelRect& pictureRect);

    int pictureWidth = 0;
    int pictureHeight = 0;
    int halvings = 0;
    int levelWidth = 0; // of the display once halved
    int levelHeight = 0;
    std::shared_ptr<Canvas> canvas;
    std::vector<std::uint8_t> halvedPixels[2];
    std::vector<std::uint8_t> scaledPixels;
};

} // namespace pelorin
