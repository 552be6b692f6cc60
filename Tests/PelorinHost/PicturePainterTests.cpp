#include "PelorinHost/Screen/DamageRects.h"
#include "PelorinHost/Screen/PicturePainter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace pelorin {
namespace {

// A display's pixels, changed rectangle by rectangle.
class Desktop {
public:
    Desktop(int newWidth, int newHeight)
        : width(newWidth),
          height(newHeight),
          pixels(static_cast<std::size_t>(newWidth * newHeight))
    {
        change({0, 0, width, height}, 1);
    }

    void change(const PixelRect& r, unsigned seed)
    {
        std::minstd_rand random(seed);
        for (int y = r.y; y < r.y + r.height; ++y)
            for (int x = r.x; x < r.x + r.width; ++x)
                pixels[static_cast<std::size_t>(y * width + x)] = static_cast<std::uint32_t>(random()) * 3;
    }

    // As a grab brings it: the rectangle alone, its rows close together, garbage after it.
    std::vector<std::uint8_t> grab(const PixelRect& r) const
    {
        EXPECT_EQ(intersection(r, {0, 0, width, height}), r) << "asked for pixels outside of the display";
        const auto rowBytes = static_cast<std::size_t>(r.width) * 4;
        std::vector<std::uint8_t> grabbed(
            rowBytes * static_cast<std::size_t>(r.height) + PicturePainter::bytesReadPastEnd, 0xA5);
        for (int y = 0; y < r.height; ++y)
            std::memcpy(grabbed.data() + static_cast<std::size_t>(y) * rowBytes,
                pixels.data() + (r.y + y) * width + r.x, rowBytes);
        return grabbed;
    }

    void paint(PicturePainter& painter, const PixelRect& pictureRect) const
    {
        const auto source = painter.sourceRectOf(pictureRect);
        painter.paint(pictureRect, {grab(source).data(), source.width * 4});
    }

    int width, height;
    std::vector<std::uint32_t> pixels;
};

void expectSamePictures(const PixelBuffer& a, const PixelBuffer& b)
{
    for (int y = 0; y < a.heightPx; ++y) {
        const auto width = static_cast<std::size_t>(a.widthPx);
        ASSERT_EQ(std::memcmp(a.luma + y * a.lumaStride, b.luma + y * b.lumaStride, width), 0)
            << "luma row " << y;
        ASSERT_EQ(std::memcmp(a.chroma + y / 2 * a.chromaStride, b.chroma + y / 2 * b.chromaStride, width), 0)
            << "chroma row " << y / 2;
    }
}

constexpr struct {
    int width, height, pictureWidth, pictureHeight;
} sizes[] = {
    {64, 48, 64, 48}, // as it is
    {321, 201, 320, 200}, // odd display
    {640, 480, 320, 240}, // halved
    {1280, 960, 320, 240}, // to a quarter
    {500, 300, 390, 234}, // a phone's odd ratio
    {1300, 500, 358, 136}, // a small phone
    {1366, 768, 340, 190}, // neither divides
    {700, 400, 350, 300}, // different in each direction
    {700, 401, 698, 200}, // hardly any in one direction
    {300, 150, 320, 200}, // below the least size: enlarged
    {1000, 150, 320, 200}, // one direction each way
};

TEST(PicturePainter, paintingOnlyWhatChangedEqualsPaintingTheWhole)
{
    for (const auto& [width, height, pictureWidth, pictureHeight] : sizes) {
        SCOPED_TRACE(
            testing::Message() << width << 'x' << height << " to " << pictureWidth << 'x' << pictureHeight);
        Desktop desktop(width, height);
        PicturePainter piecewise(width, height, pictureWidth, pictureHeight);
        PicturePainter whole(width, height, pictureWidth, pictureHeight);
        desktop.paint(piecewise, piecewise.wholePicture());

        std::minstd_rand random(5);
        const auto below
            = [&random](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
        for (unsigned round = 0; round < 60; ++round) {
            const int x = below(width);
            const int y = below(height);
            const bool isSmall = round % 2 == 0;
            const PixelRect changed{x, y, 1 + below(isSmall ? std::min(4, width - x) : width - x),
                1 + below(isSmall ? std::min(4, height - y) : height - y)};
            desktop.change(changed, round + 10);
            const auto damaged = piecewise.pictureRectOf(changed);
            if (isEmpty(damaged)) continue; // in the row or column that an odd size leaves out
            EXPECT_EQ(evenAligned(intersection(damaged, piecewise.wholePicture())), damaged);
            desktop.paint(piecewise, damaged);
            if (round % 10 != 9) continue;
            desktop.paint(whole, whole.wholePicture());
            expectSamePictures(*piecewise.picture(), *whole.picture());
            if (testing::Test::HasFatalFailure()) return;
        }
    }
}

TEST(PicturePainter, leavesTheRestOfThePictureAlone)
{
    Desktop desktop(640, 480);
    PicturePainter painter(640, 480, 500, 374);
    desktop.paint(painter, painter.wholePicture());
    const auto damaged = painter.pictureRectOf({100, 100, 1, 1});
    EXPECT_LE(damaged.width, 4);
    EXPECT_LE(damaged.height, 4);
    EXPECT_TRUE(isEmpty(painter.pictureRectOf({640, 0, 100, 480}))); // beside the display
}

TEST(DamageRects, coverEverythingWithFewRectanglesThatDoNotOverlap)
{
    std::minstd_rand random(3);
    const auto below
        = [&random](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
    for (int round = 0; round < 200; ++round) {
        std::vector<PixelRect> rects;
        for (int i = below(60); i >= 0; --i)
            rects.push_back(
                {below(1900), below(1000), below(round % 2 ? 20 : 300), below(round % 2 ? 20 : 300)});
        const auto merged = mergedDamage(rects);
        EXPECT_LE(merged.size(), 8U);
        for (const auto& rect : rects) {
            const auto covers = [&rect](const PixelRect& m) { return intersection(m, rect) == rect; };
            EXPECT_TRUE(isEmpty(rect) || std::ranges::any_of(merged, covers));
        }
        for (std::size_t i = 0; i < merged.size(); ++i)
            for (std::size_t j = 0; j < i; ++j) EXPECT_TRUE(isEmpty(intersection(merged[i], merged[j])));
    }
}

TEST(DamageRects, joinNeighboursAndKeepDistantOnesApart)
{
    using Rects = std::vector<PixelRect>;
    const struct {
        const char* what;
        Rects given;
        Rects merged;
    } rows[] = {
        {"nothing", {}, {}},
        {"empty ones", {{5, 5, 0, 9}}, {}},
        {"letters of a line", {{10, 10, 8, 16}, {20, 10, 8, 16}, {30, 10, 8, 16}}, {{10, 10, 28, 16}}},
        {"a clock and a cursor", {{0, 0, 60, 20}, {900, 700, 10, 20}}, {{0, 0, 60, 20}, {900, 700, 10, 20}}},
        {"one within another", {{0, 0, 500, 500}, {100, 100, 9, 9}}, {{0, 0, 500, 500}}},
        {"a corner shared", {{0, 0, 300, 300}, {290, 290, 300, 300}}, {{0, 0, 590, 590}}},
    };
    for (const auto& [what, given, merged] : rows) EXPECT_EQ(mergedDamage(given), merged) << what;
}

} // namespace
} // namespace pelorin
