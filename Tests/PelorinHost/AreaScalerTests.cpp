#include "PelorinHost/Screen/AreaScaler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <hwy/targets.h>
#include <random>

namespace pelorin {
namespace {

// What the span [target, target + 1) of targetLength pixels covers of each source pixel.
double covered(int source, int target, int sourceLength, int targetLength)
{
    const double ratio = double(sourceLength) / targetLength;
    return std::max(
        0.0, std::min(source + 1.0, (target + 1) * ratio) - std::max<double>(source, target * ratio));
}

void expectMeans(int width, int height, int targetWidth, int targetHeight)
{
    SCOPED_TRACE(
        testing::Message() << width << 'x' << height << " to " << targetWidth << 'x' << targetHeight);
    std::vector<std::uint8_t> pixels(
        static_cast<std::size_t>(width * height * 4 + AreaScaler::bytesReadPastEnd));
    std::minstd_rand random(9);
    for (auto& byte : pixels) byte = static_cast<std::uint8_t>(random() % 2 ? 255 : random());
    std::vector<std::uint8_t> scaled(static_cast<std::size_t>(targetWidth * targetHeight * 4));
    AreaScaler scaler(width, height, targetWidth, targetHeight);
    scaler.scale({pixels.data(), width * 4}, {0, 0, targetWidth, targetHeight}, scaled.data());

    double worst = 0;
    for (int y = 0; y < targetHeight; ++y)
        for (int x = 0; x < targetWidth; ++x)
            for (int channel = 0; channel < 4; ++channel) {
                double sum = 0;
                for (int sy = y * height / targetHeight; sy < height && sy <= (y + 1) * height / targetHeight;
                    ++sy)
                    for (int sx = x * width / targetWidth; sx < width && sx <= (x + 1) * width / targetWidth;
                        ++sx)
                        sum += pixels[static_cast<std::size_t>((sy * width + sx) * 4 + channel)]
                            * covered(sy, y, height, targetHeight) * covered(sx, x, width, targetWidth);
                const double mean = sum * targetWidth / width * targetHeight / height;
                const auto got = scaled[static_cast<std::size_t>((y * targetWidth + x) * 4 + channel)];
                worst = std::max(worst, std::abs(got - mean));
            }
    EXPECT_LT(worst, 2); // weights of rows have 8 bits
}

TEST(AreaScaler, yieldsTheMeanOfTheAreaOnEveryTarget)
{
    for (auto left = hwy::SupportedTargets(); left != 0; left &= left - 1) {
        SCOPED_TRACE(hwy::TargetName(left & -left));
        hwy::SetSupportedTargetsForTest(left & -left);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
        expectMeans(100, 80, 50, 40);
        expectMeans(4, 4, 2, 2);
        expectMeans(99, 71, 62, 44);
        expectMeans(97, 61, 30, 8);
        expectMeans(40, 30, 64, 40);
        expectMeans(64, 40, 64, 10);
    }
    hwy::SetSupportedTargetsForTest(0);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

TEST(AreaScaler, keepsAnEvenColourAsItIs)
{
    for (const int value : {0, 1, 127, 128, 254, 255}) {
        const std::vector<std::uint8_t> pixels(
            200 * 100 * 4 + AreaScaler::bytesReadPastEnd, static_cast<std::uint8_t>(value));
        for (const int width : {200, 198, 130, 100, 66, 30}) {
            std::vector<std::uint8_t> scaled(static_cast<std::size_t>(width * 60 * 4));
            AreaScaler(200, 100, width, 60).scale({pixels.data(), 800}, {0, 0, width, 60}, scaled.data());
            EXPECT_TRUE(std::ranges::all_of(scaled, [value](int byte) { return byte == value; }))
                << value << ' ' << width;
        }
    }
}

} // namespace
} // namespace pelorin
