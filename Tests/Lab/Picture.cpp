#include "Tests/Lab/Picture.h"

#include "PelorinHost/Linux/X11Connection.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <png.h>

namespace pelorin::lab {
namespace {

constexpr int blockSize = 16;
// A codec at a few Mbit/s blurs the edges of text by less than this on average; another text differs by far
// more.
constexpr double equalBlockDifference = 10;
constexpr int livelyBlockContrast = 24;

int luma(const std::uint8_t* rgb)
{
    return (54 * rgb[0] + 183 * rgb[1] + 19 * rgb[2]) >> 8;
}

template <class Judge>
double shareOfBlocks(const Picture& picture, Judge judge)
{
    int count = 0;
    int hits = 0;
    for (int y = 0; y + blockSize <= picture.heightPx; y += blockSize) {
        for (int x = 0; x + blockSize <= picture.widthPx; x += blockSize, ++count) hits += judge(x, y);
    }
    return count ? static_cast<double>(hits) / count : 0;
}

} // namespace

Picture Picture::ofScreen(const std::string& display)
{
    auto connection = X11Connection::open(display);
    if (!connection) return {};
    const auto& screen = connection->screen();
    const XcbReply<xcb_get_image_reply_t> image(xcb_get_image_reply(connection->get(),
        xcb_get_image(connection->get(), XCB_IMAGE_FORMAT_Z_PIXMAP, screen.root, 0, 0, screen.width_in_pixels,
            screen.height_in_pixels, ~0U),
        nullptr));
    if (!image) return {};

    Picture result{screen.width_in_pixels, screen.height_in_pixels, {}};
    const std::uint8_t* source = xcb_get_image_data(image.get());
    const std::size_t count
        = static_cast<std::size_t>(result.widthPx) * static_cast<std::size_t>(result.heightPx);
    result.pixels.resize(count * 3);
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t channel = 0; channel < 3; ++channel)
            result.pixels[i * 3 + channel] = source[i * 4 + 2 - channel];
    }
    return result;
}

Picture Picture::ofPNG(const std::string& path)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
    image.format = PNG_FORMAT_RGB;
    Picture result{static_cast<int>(image.width), static_cast<int>(image.height), {}};
    result.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, result.pixels.data(), 0, nullptr)) return {};
    return result;
}

Picture Picture::scaledTo(int newWidthPx, int newHeightPx) const
{
    if (newWidthPx == widthPx && newHeightPx == heightPx) return *this;
    Picture result{newWidthPx, newHeightPx, {}};
    result.pixels.resize(static_cast<std::size_t>(newWidthPx) * static_cast<std::size_t>(newHeightPx) * 3);
    for (int y = 0; y < newHeightPx; ++y) {
        const int top = y * heightPx / newHeightPx;
        const int bottom = std::max(top + 1, (y + 1) * heightPx / newHeightPx);
        for (int x = 0; x < newWidthPx; ++x) {
            const int left = x * widthPx / newWidthPx;
            const int right = std::max(left + 1, (x + 1) * widthPx / newWidthPx);
            int sum[3] = {};
            for (int sourceY = top; sourceY < bottom; ++sourceY) {
                for (int sourceX = left; sourceX < right; ++sourceX) {
                    for (int channel = 0; channel < 3; ++channel)
                        sum[channel] += at(sourceX, sourceY)[channel];
                }
            }
            const int area = (bottom - top) * (right - left);
            for (int channel = 0; channel < 3; ++channel) {
                result.pixels[static_cast<std::size_t>((y * newWidthPx + x) * 3 + channel)]
                    = static_cast<std::uint8_t>(sum[channel] / area);
            }
        }
    }
    return result;
}

double shareOfEqualBlocks(const Picture& a, const Picture& b)
{
    if (a.isEmpty() || a.widthPx != b.widthPx || a.heightPx != b.heightPx) return 0;
    return shareOfBlocks(a, [&](int left, int top) {
        int difference = 0;
        for (int y = top; y < top + blockSize; ++y) {
            for (int x = left; x < left + blockSize; ++x)
                difference += std::abs(luma(a.at(x, y)) - luma(b.at(x, y)));
        }
        return difference < equalBlockDifference * blockSize * blockSize;
    });
}

double shareOfLivelyBlocks(const Picture& picture)
{
    return shareOfBlocks(picture, [&](int left, int top) {
        int lowest = 255;
        int highest = 0;
        for (int y = top; y < top + blockSize; ++y) {
            for (int x = left; x < left + blockSize; ++x) {
                lowest = std::min(lowest, luma(picture.at(x, y)));
                highest = std::max(highest, luma(picture.at(x, y)));
            }
        }
        return highest - lowest > livelyBlockContrast;
    });
}

} // namespace pelorin::lab
