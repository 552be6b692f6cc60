#include "PelorinHost/Screen/PicturePainter.h"

#include "PelorinCore/Result.h"
#include "PelorinHost/Screen/DamageRects.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr int strideAlignment = 64; // bytes; a cache line and the widest vector

int alignedStride(int bytes)
{
    return (bytes + strideAlignment - 1) / strideAlignment * strideAlignment;
}

} // namespace

struct PicturePainter::Canvas {
    Canvas(int width, int height)
        : stride(alignedStride(width)),
          bytes(static_cast<std::size_t>(stride) * static_cast<std::size_t>(height) * 3 / 2)
    {
        // Black, should a picture ever be looked at before its first painting.
        std::fill_n(bytes.begin(), lumaSize(height), std::uint8_t{16});
        std::fill(
            bytes.begin() + static_cast<std::ptrdiff_t>(lumaSize(height)), bytes.end(), std::uint8_t{128});
    }
    std::size_t lumaSize(int height) const
    {
        return static_cast<std::size_t>(stride) * static_cast<std::size_t>(height);
    }

    int stride = 0; // of both planes
    std::vector<std::uint8_t> bytes;
};

// An odd last row or column stays out of the picture, rather than blurring all others.
PicturePainter::PicturePainter(int sourceWidth, int sourceHeight, int newPictureWidth, int newPictureHeight)
    : shownWidth(sourceWidth - 1 == newPictureWidth ? newPictureWidth : sourceWidth),
      shownHeight(sourceHeight - 1 == newPictureHeight ? newPictureHeight : sourceHeight),
      pictureWidth(newPictureWidth),
      pictureHeight(newPictureHeight),
      canvas(std::make_shared<Canvas>(newPictureWidth, newPictureHeight))
{
    require(pictureWidth > 0 && pictureHeight > 0 && pictureWidth % 2 == 0 && pictureHeight % 2 == 0,
        "a picture's size is even");
    require(sourceWidth > 0 && sourceHeight > 0, "a display has a size");
    if (shownWidth != pictureWidth || shownHeight != pictureHeight)
        scaler.emplace(shownWidth, shownHeight, pictureWidth, pictureHeight);
}

PixelRect PicturePainter::pictureRectOf(const PixelRect& sourceRect) const
{
    const auto shown = intersection(sourceRect, {0, 0, shownWidth, shownHeight});
    if (isEmpty(shown)) return {};
    return evenAligned(scaler ? scaler->targetRectOf(shown) : shown);
}

PixelRect PicturePainter::sourceRectOf(const PixelRect& pictureRect) const
{
    return scaler ? scaler->sourceRectOf(pictureRect) : pictureRect;
}

void PicturePainter::paint(const PixelRect& rect, BgrxPixels source)
{
    if (!scaler) return convertToNv12(source, rect.width, rect.height, target(rect));

    // Two rows at a time, the least that conversion takes, so that they are converted while they are hot.
    const int stride = rect.width * 4;
    scaledPixels.resize(std::max(scaledPixels.size(), static_cast<std::size_t>(stride) * 2));
    const int firstRow = sourceRectOf(rect).y;
    for (int y = rect.y; y < rect.y + rect.height; y += 2) {
        const PixelRect rows{rect.x, y, rect.width, 2};
        const auto skipped = std::ptrdiff_t{sourceRectOf(rows).y - firstRow} * source.stride;
        scaler->scale({source.first + skipped, source.stride}, rows, scaledPixels.data());
        convertToNv12({scaledPixels.data(), stride}, rect.width, 2, target(rows));
    }
}

Nv12Pixels PicturePainter::target(const PixelRect& rect) const
{
    auto* luma = canvas->bytes.data();
    auto* chroma = luma + canvas->lumaSize(pictureHeight);
    const auto stride = static_cast<std::ptrdiff_t>(canvas->stride);
    return {luma + rect.y * stride + rect.x, chroma + rect.y / 2 * stride + rect.x, canvas->stride,
        canvas->stride};
}

std::shared_ptr<PixelBuffer> PicturePainter::picture() const
{
    struct Held {
        PixelBuffer buffer;
        std::shared_ptr<const Canvas> canvas;
    };
    const auto whole = target(wholePicture());
    const auto held = std::make_shared<Held>();
    held->canvas = canvas;
    held->buffer.widthPx = pictureWidth;
    held->buffer.heightPx = pictureHeight;
    held->buffer.luma = whole.luma;
    held->buffer.chroma = whole.chroma;
    held->buffer.lumaStride = whole.lumaStride;
    held->buffer.chromaStride = whole.chromaStride;
    return {held, &held->buffer};
}

} // namespace pelorin
