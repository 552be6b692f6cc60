#include "PelorinHost/Screen/PixelConversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <hwy/targets.h>
#include <random>
#include <vector>

namespace pelorin {
namespace {

struct Rgb {
    double red, green, blue;
};

double lumaOf(Rgb c)
{
    return 0.2126 * c.red + 0.7152 * c.green + 0.0722 * c.blue;
}

// BT.709 in double precision.
struct Reference {
    double y, cb, cr;
    explicit Reference(Rgb c)
        : y(16 + 219.0 / 255 * lumaOf(c)),
          cb(128 + 224.0 / 255 * (c.blue - lumaOf(c)) / 1.8556),
          cr(128 + 224.0 / 255 * (c.red - lumaOf(c)) / 1.5748)
    {
    }
};

// Random pixels, saturated ones among them, within rows longer than the picture.
struct Image {
    Image(int newWidth, int newHeight)
        : width(newWidth),
          height(newHeight),
          stride(newWidth * 4 + 12),
          bgrx(static_cast<std::size_t>(stride * newHeight))
    {
        std::minstd_rand random(static_cast<unsigned>(newWidth * 1000 + newHeight));
        for (auto& byte : bgrx) {
            const auto roll = random() % 300;
            byte = static_cast<std::uint8_t>(roll < 256 ? roll : roll % 2 * 255);
        }
    }
    Rgb at(int x, int y) const
    {
        const auto* p = bgrx.data() + y * stride + x * 4;
        return {double(p[2]), double(p[1]), double(p[0])};
    }
    Rgb meanOf2x2(int x, int y) const
    {
        Rgb sum{0, 0, 0};
        for (const auto& [dx, dy] : {std::pair{0, 0}, {1, 0}, {0, 1}, {1, 1}}) {
            const auto c = at(x + dx, y + dy);
            sum = {sum.red + c.red / 4, sum.green + c.green / 4, sum.blue + c.blue / 4};
        }
        return sum;
    }

    int width, height, stride;
    std::vector<std::uint8_t> bgrx;
};

struct Planes {
    static constexpr std::uint8_t untouched = 77;
    explicit Planes(const Image& image)
        : stride(image.width + 6),
          luma(static_cast<std::size_t>(stride * image.height), untouched),
          chroma(static_cast<std::size_t>(stride * image.height / 2), untouched)
    {
        convertToNv12({image.bgrx.data(), image.stride}, image.width, image.height,
            {luma.data(), chroma.data(), stride, stride});
    }
    int stride;
    std::vector<std::uint8_t> luma;
    std::vector<std::uint8_t> chroma;
};

void expectMatches(const Image& image)
{
    const Planes planes(image);
    double worst = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x)
            worst
                = std::max(worst, std::abs(planes.luma[y * planes.stride + x] - Reference(image.at(x, y)).y));
        for (int x = image.width; x < planes.stride; ++x)
            ASSERT_EQ(planes.luma[y * planes.stride + x], Planes::untouched) << "written past row " << y;
    }
    for (int y = 0; y < image.height / 2; ++y) {
        const auto* row = planes.chroma.data() + y * planes.stride;
        for (int x = 0; x < image.width; x += 2) {
            const Reference expected(image.meanOf2x2(x, 2 * y));
            worst = std::max({worst, std::abs(row[x] - expected.cb), std::abs(row[x + 1] - expected.cr)});
        }
        for (int x = image.width; x < planes.stride; ++x) ASSERT_EQ(row[x], Planes::untouched);
    }
    EXPECT_LT(worst, 0.52) << image.width << 'x'
                           << image.height; // rounded, but for the matrix's own rounding
}

// Each vector length has its own code and its own remainders at the end of a row.
TEST(PixelConversion, roundsToTheNearestOfADoublePrecisionReferenceOnEveryTarget)
{
    for (auto left = hwy::SupportedTargets(); left != 0; left &= left - 1) {
        SCOPED_TRACE(hwy::TargetName(left & -left));
        hwy::SetSupportedTargetsForTest(left & -left);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
        for (const int width : {2, 4, 6, 8, 14, 16, 18, 30, 32, 34, 62, 64, 66, 640})
            expectMatches({width, width == 640 ? 480 : 4});
    }
    hwy::SetSupportedTargetsForTest(0);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

} // namespace
} // namespace pelorin
