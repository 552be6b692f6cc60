#include "PelorinViewer/Picture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libyuv.h>
#include <memory>
#include <png.h>
#include <vector>

namespace pelorin {

namespace {

// A codec refining text at a low bitrate moves luma by some 30 around its edges.
constexpr int noticeableLuma = 40;

// Fewer pixels than a full stop of a small font or a caret has.
constexpr int noticeablePixels = 6;

constexpr int bytesPerPixel = 3;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::vector<std::uint8_t> bgrOf(const DecodedPicture& picture)
{
    const int stride = picture.widthPx * bytesPerPixel;
    std::vector<std::uint8_t> bgr(
        static_cast<std::size_t>(stride) * static_cast<std::size_t>(picture.heightPx));
    const auto* matrix = picture.isFullRange ? &libyuv::kYuvF709Constants : &libyuv::kYuvH709Constants;
    libyuv::I420ToRGB24MatrixFilter(picture.planes[0], picture.strides[0], picture.planes[1],
        picture.strides[1], picture.planes[2], picture.strides[2], bgr.data(), stride, matrix,
        picture.widthPx, picture.heightPx, libyuv::kFilterBilinear);
    return bgr;
}

} // namespace

bool showsChange(const DecodedPicture& before, const DecodedPicture& after)
{
    if (before.widthPx != after.widthPx || before.heightPx != after.heightPx) return true;
    int changed = 0;
    for (int y = 0; y < after.heightPx; ++y) {
        const auto* left = before.planes[0] + std::ptrdiff_t{y} * before.strides[0];
        const auto* right = after.planes[0] + std::ptrdiff_t{y} * after.strides[0];
        for (int x = 0; x < after.widthPx; ++x) changed += std::abs(left[x] - right[x]) > noticeableLuma;
        if (changed >= noticeablePixels) return true;
    }
    return false;
}

double meanLuma(const DecodedPicture& picture, const PictureRect& rect)
{
    const int right = std::min(rect.x + rect.width, picture.widthPx);
    const int bottom = std::min(rect.y + rect.height, picture.heightPx);
    const int left = std::max(rect.x, 0);
    const int top = std::max(rect.y, 0);
    if (left >= right || top >= bottom) return 0;
    double sum = 0;
    for (int y = top; y < bottom; ++y)
        for (int x = left; x < right; ++x) sum += picture.lumaAt(x, y);
    return sum / (right - left) / (bottom - top);
}

Result<void, std::string> writePNG(const DecodedPicture& picture, const std::string& file)
{
    const auto bgr = bgrOf(picture);
    const std::unique_ptr<std::FILE, FileCloser> output(std::fopen(file.c_str(), "wb"));
    if (!output) return std::unexpected(file + ": " + std::strerror(errno));
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.widthPx);
    image.height = static_cast<png_uint_32>(picture.heightPx);
    image.format = PNG_FORMAT_BGR;
    image.flags = PNG_IMAGE_FLAG_FAST;
    png_image_write_to_stdio(&image, output.get(), 0, bgr.data(), 0, nullptr);
    if (image.warning_or_error >= PNG_IMAGE_ERROR) return std::unexpected(file + ": " + image.message);
    if (std::fflush(output.get()) != 0) return std::unexpected(file + ": " + std::strerror(errno));
    return {};
}

} // namespace pelorin
