#include "PelorinHost/Screen/PicturePainter.h"

#include "PelorinCore/Result.h"
#include "PelorinHost/Screen/DamageRects.h"

#include <algorithm>
#include <libyuv/scale_argb.h>

namespace pelorin {
namespace {

constexpr int strideAlignment = 64; // bytes; a cache line and the widest vector
// Pixels of the halved display that one pixel of the picture may draw on beyond its own place: the other
// half of a bilinear pair, and what fixed-point steps are off by.
constexpr int reach = 2;

int alignedStride(int bytes)
{
    return (bytes + strideAlignment - 1) / strideAlignment * strideAlignment;
}

std::int64_t scaledDown(std::int64_t value, int from, int to)
{
    return value * to / from;
}

std::int64_t scaledUp(std::int64_t value, int from, int to)
{
    return (value * to + from - 1) / from;
}

// The span of `to` pixels that has a part in span [first, first + count) of `from` pixels, margin more on
// both sides, within [0, to).
struct Span {
    int first = 0;
    int count = 0;
};
Span mappedSpan(Span span, int from, int to, int marginBefore, int marginAfter)
{
    const auto begin = std::max<std::int64_t>(0, scaledDown(span.first, from, to) - marginBefore);
    const auto end = std::min<std::int64_t>(to, scaledUp(span.first + span.count, from, to) + marginAfter);
    return {static_cast<int>(begin), static_cast<int>(std::max<std::int64_t>(0, end - begin))};
}

// Where the whole image would begin of which `part`, packed with `stride`, is at `first`: what libyuv asks
// for, although it touches only the part. Computed as a number since it points outside of any object.
std::uintptr_t wholeImage(const std::uint8_t* first, int stride, const PixelRect& part)
{
    return reinterpret_cast<std::uintptr_t>(first)
        - static_cast<std::uintptr_t>(part.y) * static_cast<std::uintptr_t>(stride)
        - static_cast<std::uintptr_t>(part.x) * 4;
}

std::uint8_t* reserved(std::vector<std::uint8_t>& pixels, const PixelRect& rect)
{
    const auto needed = static_cast<std::size_t>(rect.width) * static_cast<std::size_t>(rect.height) * 4
        + PicturePainter::bytesReadPastEnd;
    if (pixels.size() < needed) pixels.resize(needed);
    return pixels.data();
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

PicturePainter::PicturePainter(int sourceWidth, int sourceHeight, int newPictureWidth, int newPictureHeight)
    : pictureWidth(newPictureWidth),
      pictureHeight(newPictureHeight),
      levelWidth(sourceWidth),
      levelHeight(sourceHeight),
      canvas(std::make_shared<Canvas>(newPictureWidth, newPictureHeight))
{
    require(pictureWidth > 0 && pictureHeight > 0 && pictureWidth % 2 == 0 && pictureHeight % 2 == 0,
        "a picture's size is even");
    require(sourceWidth > 0 && sourceHeight > 0, "a display has a size");
    while (levelWidth / 2 >= pictureWidth && levelHeight / 2 >= pictureHeight) {
        levelWidth /= 2;
        levelHeight /= 2;
        ++halvings;
    }
    // An odd row or column stays out of the picture, rather than blurring all others.
    if (levelWidth - 1 == pictureWidth) --levelWidth;
    if (levelHeight - 1 == pictureHeight) --levelHeight;
}

PixelRect PicturePainter::pictureRectOf(const PixelRect& sourceRect) const
{
    const int unit = 1 << halvings;
    const PixelRect covered{0, 0, levelWidth * unit, levelHeight * unit};
    const auto shown = intersection(sourceRect, covered);
    if (isEmpty(shown)) return {};
    if (isEnlarged()) return wholePicture(); // one pixel may show in many; rare and small
    const PixelRect level{shown.x / unit, shown.y / unit,
        (shown.x + shown.width - 1) / unit - shown.x / unit + 1,
        (shown.y + shown.height - 1) / unit - shown.y / unit + 1};
    if (!isScaled()) return evenAligned(level);

    const auto x = mappedSpan({level.x, level.width}, levelWidth, pictureWidth, reach, reach);
    const auto y = mappedSpan({level.y, level.height}, levelHeight, pictureHeight, reach, reach);
    return evenAligned({x.first, y.first, x.count, y.count});
}

PixelRect PicturePainter::levelRectOf(const PixelRect& pictureRect) const
{
    if (!isScaled()) return pictureRect;
    const auto x = mappedSpan({pictureRect.x, pictureRect.width}, pictureWidth, levelWidth, reach, reach);
    const auto y = mappedSpan({pictureRect.y, pictureRect.height}, pictureHeight, levelHeight, reach, reach);
    return {x.first, y.first, x.count, y.count};
}

PixelRect PicturePainter::sourceRectOf(const PixelRect& pictureRect) const
{
    const auto level = levelRectOf(pictureRect);
    const int unit = 1 << halvings;
    return {level.x * unit, level.y * unit, level.width * unit, level.height * unit};
}

void PicturePainter::paint(const PixelRect& pictureRect, BgrxPixels source)
{
    const auto level = halved(source, sourceRectOf(pictureRect));
    const auto pixels = isScaled() ? scaled(level, levelRectOf(pictureRect), pictureRect) : level;
    convertToNv12(pixels, pictureRect.width, pictureRect.height, target(pictureRect));
}

BgrxPixels PicturePainter::halved(BgrxPixels source, PixelRect rect)
{
    for (int step = 0; step < halvings; ++step) {
        const PixelRect half{0, 0, rect.width / 2, rect.height / 2};
        auto* pixels = reserved(halvedPixels[step % 2], half);
        libyuv::ARGBScale(source.first, source.stride, rect.width, rect.height, pixels, half.width * 4,
            half.width, half.height, libyuv::kFilterBox);
        source = {pixels, half.width * 4};
        rect = half;
    }
    return source;
}

BgrxPixels PicturePainter::scaled(BgrxPixels level, const PixelRect& levelRect, const PixelRect& pictureRect)
{
    auto* pixels = reserved(scaledPixels, pictureRect);
    const int stride = pictureRect.width * 4;
    libyuv::ARGBScaleClip(
        reinterpret_cast<const std::uint8_t*>(wholeImage(level.first, level.stride, levelRect)), level.stride,
        levelWidth, levelHeight, reinterpret_cast<std::uint8_t*>(wholeImage(pixels, stride, pictureRect)),
        stride, pictureWidth, pictureHeight, pictureRect.x, pictureRect.y, pictureRect.width,
        pictureRect.height, libyuv::kFilterBox);
    return {pixels, stride};
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
