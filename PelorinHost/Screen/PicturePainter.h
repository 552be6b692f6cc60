#pragma once

#include "PelorinHost/Platform/PixelBuffer.h"
#include "PelorinHost/Screen/AreaScaler.h"

#include <memory>
#include <optional>
#include <vector>

namespace pelorin {

// Paints the pixels of a display, scaled to a picture's size, into one NV12 picture, rectangle by rectangle;
// the result is the same as painting the whole. Owns the picture's pixels, together with the pictures it has
// given out. Lives on the capture queue, owned by a capture stream.
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
    static constexpr int bytesReadPastEnd = AreaScaler::bytesReadPastEnd;

    // The picture as painted so far; sequence, damage and times are the caller's to fill in.
    std::shared_ptr<PixelBuffer> picture() const;

private:
    struct Canvas;
    Nv12Pixels target(const PixelRect& pictureRect) const;

    int shownWidth = 0; // of the display
    int shownHeight = 0;
    int pictureWidth = 0;
    int pictureHeight = 0;
    std::optional<AreaScaler> scaler; // none when the picture has the display's size
    std::vector<std::uint8_t> scaledPixels; // two rows
    std::shared_ptr<Canvas> canvas;
};

} // namespace pelorin
