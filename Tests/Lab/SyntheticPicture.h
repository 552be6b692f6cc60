#pragma once

#include "PelorinHost/Platform/PixelBuffer.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

namespace pelorin {

// A desktop-like NV12 picture that is drawn on and remembers its damage, as a capture backend would hand it
// over. Rectangles are even-aligned. The padding of its rows is poison: whoever reads it shows.
class SyntheticPicture {
public:
    SyntheticPicture(int width, int height)
        : widthPx(width),
          heightPx(height),
          stride(width + 34),
          luma(static_cast<std::size_t>(stride) * height, 77),
          chroma(static_cast<std::size_t>(stride) * height / 2, 201)
    {
        fill(whole(), 235, 128, 128);
    }

    PixelRect whole() const { return {0, 0, widthPx, heightPx}; }
    int lumaAt(int x, int y) const { return luma[index(x, y)]; }
    int chromaAt(int x, int y, int component) const { return chroma[index(2 * x + component, y)]; }

    void fill(const PixelRect& rect, int y, int cb, int cr)
    {
        paint(
            rect, [=](int, int) { return y; }, [=](int, int, int component) { return component ? cr : cb; });
    }

    // Every sample random: what no encoder can shrink.
    void drawNoise(const PixelRect& rect, unsigned seed)
    {
        std::minstd_rand random(seed + 1);
        const auto sample = [&](auto...) { return 16 + static_cast<int>(random() >> 8) % 220; };
        paint(rect, sample, sample);
    }

    // Dark strokes in cells of 8x16 on a light ground, in lines of uneven length; a line is told by its
    // number.
    void drawText(const PixelRect& rect, int firstRow = 0)
    {
        paint(
            rect,
            [&](int x, int y) {
                const int row = firstRow + (y - rect.y) / 16;
                const auto glyph
                    = static_cast<unsigned>(row * 7919 + (x - rect.x) / 8 * 104729) * 2654435761U;
                const int inX = (x - rect.x) % 8;
                const int inY = (y - rect.y) % 16;
                const int length = rect.width * (40 + row * 37 % 61) / 100;
                const bool isInk = x - rect.x < length && inX > 0 && inX < 7 && inY > 2 && inY < 14
                    && glyph % 6 != 0 && ((glyph >> ((inX * 3 + inY / 3 * 5) % 29)) & 1);
                return isInk ? 40 : 235;
            },
            [](int, int, int) { return 128; });
    }

    // Smooth waves in motion, all over: film-like.
    void drawWaves(const PixelRect& rect, int phase)
    {
        paint(
            rect, [=](int x, int y) { return 16 + ((x * 3 + phase * 5) ^ (y * 2 + phase * 3)) % 220; },
            [=](int x, int y, int component) { return 64 + (x + y * (component + 1) + phase * 2) % 128; });
    }

    void scrollUp(int px)
    {
        std::memmove(luma.data(), luma.data() + index(0, px), luma.size() - index(0, px));
        std::memmove(chroma.data(), chroma.data() + index(0, px / 2), chroma.size() - index(0, px / 2));
        damage = {whole()};
    }

    // The next picture of the stream, with the damage since the one before it. Points into this object.
    PixelBuffer next()
    {
        ++sequence;
        return last(std::exchange(damage, {}));
    }
    PixelBuffer repeat() const { return last({}); } // the same picture again

private:
    std::size_t index(int x, int y) const { return static_cast<std::size_t>(y) * stride + x; }

    template <class Luma, class Chroma>
    void paint(const PixelRect& rect, Luma lumaOf, Chroma chromaOf)
    {
        for (int y = rect.y; y < rect.y + rect.height; ++y)
            for (int x = rect.x; x < rect.x + rect.width; ++x)
                luma[index(x, y)] = static_cast<std::uint8_t>(lumaOf(x, y));
        for (int y = rect.y / 2; y < (rect.y + rect.height) / 2; ++y)
            for (int x = rect.x / 2; x < (rect.x + rect.width) / 2; ++x)
                for (int component = 0; component < 2; ++component)
                    chroma[index(2 * x + component, y)]
                        = static_cast<std::uint8_t>(chromaOf(x, y, component));
        damage.push_back(rect);
    }

    PixelBuffer last(std::vector<PixelRect> changes) const
    {
        PixelBuffer buffer;
        buffer.widthPx = widthPx;
        buffer.heightPx = heightPx;
        buffer.luma = luma.data();
        buffer.chroma = chroma.data();
        buffer.lumaStride = stride;
        buffer.chromaStride = stride;
        buffer.sequence = sequence;
        buffer.damage = std::move(changes);
        return buffer;
    }

    int widthPx;
    int heightPx;
    int stride;
    std::vector<std::uint8_t> luma;
    std::vector<std::uint8_t> chroma;
    std::vector<PixelRect> damage;
    std::uint64_t sequence = 0;
};

} // namespace pelorin
