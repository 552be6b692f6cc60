#include "PelorinViewer/Picture.h"

#include "PelorinViewer/FrameMark.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Programs.h"
#include "Tests/PelorinViewer/TestPicture.h"

#include <gtest/gtest.h>

using namespace pelorin;
using lab::TestPicture;

namespace {

TEST(Picture, showsALetterButNoRefinementAsAChange)
{
    const auto before = TestPicture(64, 48, 100).get();
    const struct {
        const char* what;
        DecodedPicture after;
        bool expected;
    } rows[] = {
        {"nothing", TestPicture(64, 48, 100).get(), false},
        {"a codec's refinement everywhere", TestPicture(64, 48, 125).get(), false},
        {"a stroke of a letter", TestPicture(64, 48, 100).fill(20, 20, 1, 8, 235).get(), true},
        {"a stroke in the last column", TestPicture(64, 48, 100).fill(63, 40, 1, 8, 16).get(), true},
        {"a pixel or two", TestPicture(64, 48, 100).fill(20, 20, 2, 1, 235).get(), false},
        {"another size", TestPicture(64, 50, 100).get(), true},
    };
    for (const auto& [what, after, expected] : rows) EXPECT_EQ(showsChange(before, after), expected) << what;
}

TEST(Picture, meansThePartOfAProbeThatIsInside)
{
    const auto picture = TestPicture(64, 48, 100).fill(32, 0, 32, 48, 200).get();
    EXPECT_EQ(meanLuma(picture, {0, 0, 64, 48}), 150);
    EXPECT_EQ(meanLuma(picture, {48, 40, 1000, 1000}), 200);
    EXPECT_EQ(meanLuma(picture, {64, 0, 8, 8}), 0);
    EXPECT_EQ(meanLuma(picture, {-8, -8, 16, 16}), 100);
}

TEST(Picture, writesLimitedRangeAsFullRGB)
{
    const lab::TemporaryFolder folder;
    const auto file = (folder.path() / "picture.png").string();
    // An odd size, so that chroma has a column and a row more than half.
    ASSERT_TRUE(writePNG(TestPicture(33, 17, 16).fill(8, 8, 8, 8, 235).get(), file));
    const auto read = lab::Picture::ofPNG(file);
    ASSERT_EQ(read.widthPx, 33);
    ASSERT_EQ(read.heightPx, 17);
    for (int channel = 0; channel < 3; ++channel) {
        EXPECT_LE(read.at(32, 16)[channel], 1);
        EXPECT_GE(read.at(12, 12)[channel], 254);
    }
    const auto failed = writePNG(TestPicture(8, 8).get(), (folder.path() / "none" / "picture.png").string());
    ASSERT_FALSE(failed);
    EXPECT_NE(failed.error().find("No such file"), std::string::npos) << failed.error();
}

TEST(FrameMark, readsTheNumberAtAnySizeAndSeesATear)
{
    for (const int width : {640, 960, 1280, 1920}) {
        const int height = width * 9 / 16;
        const int side = FrameMark::blockSide(width);
        const std::uint32_t number = 0xA5F00F;
        TestPicture picture(width, height);
        const auto draw = [&](int y, std::uint32_t drawn) {
            for (int i = 0; i < FrameMark::bits; ++i)
                picture.fill(
                    i * side, y, side, side, (drawn >> (FrameMark::bits - 1 - i) & 1) != 0 ? 235 : 16);
        };
        const auto read = [&] {
            const auto shown = picture.get();
            return FrameMark::read(width, height, [&](int x, int y) { return int{shown.lumaAt(x, y)}; });
        };
        draw(0, number);
        draw(height - side, number);
        EXPECT_EQ(read().number, number) << width;
        EXPECT_TRUE(read().isWhole) << width;
        draw(height - side, number - 1);
        EXPECT_FALSE(read().isWhole) << width;
    }
}

} // namespace
