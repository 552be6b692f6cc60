#include "PelorinCore/Wire/FrameStamps.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

const FrameStamps samples[]{{}, {1, 127, 128, 16'384}, {0xFFFF'FFFF, 0x8000'0000, 0x7F, 0},
    {0x0000'0001, 0x0100'0000, 0x0001'0000, 0x0000'0100}};

Bytes withSlice(Bytes accessUnit)
{
    accessUnit.insert(accessUnit.end(), {0, 0, 0, 2, 0x65, 0x88});
    return accessUnit;
}

TEST(FrameStamps, comeBackFromAnAccessUnitOfEitherCodec)
{
    for (const VideoCodec codec : {VideoCodec::h264, VideoCodec::hevc})
        for (const FrameStamps& stamps : samples) {
            EXPECT_EQ(FrameStamps::parse(codec, stamps.encodeSEI(codec)), stamps);
            EXPECT_EQ(FrameStamps::parse(codec, withSlice(stamps.encodeSEI(codec))), stamps);
        }
}

TEST(FrameStamps, areOneSEIUnitThatNeedsNoEmulationPrevention)
{
    const struct {
        VideoCodec codec;
        Bytes header;
    } rows[] = {{VideoCodec::h264, {0x06, 5, 36}}, {VideoCodec::hevc, {0x4E, 0x01, 5, 36}}};
    for (const auto& [codec, header] : rows)
        for (const FrameStamps& stamps : samples) {
            const Bytes sei = stamps.encodeSEI(codec);
            EXPECT_THAT(Bytes(sei.begin(), sei.begin() + 4),
                testing::ElementsAre(0, 0, 0, static_cast<int>(sei.size() - 4)));
            const Bytes unit{sei.begin() + 4, sei.end()};
            EXPECT_EQ(Bytes(unit.begin(), unit.begin() + std::ssize(header)), header);
            EXPECT_THAT(unit, testing::Not(testing::Contains(0)));
            EXPECT_EQ(unit.back(), 0x80);
            EXPECT_EQ(unit.size(), header.size() + 36 + 1);
        }
}

TEST(FrameStamps, areNotFoundInAnythingElse)
{
    for (const VideoCodec codec : {VideoCodec::h264, VideoCodec::hevc}) {
        const Bytes good = withSlice(FrameStamps{1, 2, 3, 4}.encodeSEI(codec));
        const std::size_t seiSize = good.size() - 6;
        for (std::size_t size = 0; size < seiSize; ++size)
            EXPECT_EQ(FrameStamps::parse(codec, ByteView{good}.first(size)), std::nullopt) << size;
        for (std::size_t at = 0; at < seiSize; ++at) {
            Bytes bad = good;
            bad[at] ^= 0x80; // every byte's top bit is fixed
            EXPECT_EQ(FrameStamps::parse(codec, bad), std::nullopt) << at;
        }
    }
    const Bytes sei = FrameStamps{}.encodeSEI(VideoCodec::h264);
    EXPECT_EQ(FrameStamps::parse(VideoCodec::hevc, sei), std::nullopt);
    EXPECT_EQ(FrameStamps::parse(VideoCodec::h264, Bytes{0, 0, 0, 2, 0x65, 0x88}), std::nullopt);
}

TEST(FrameStamps, aStampWiderThan32BitsIsNone)
{
    Bytes sei = FrameStamps{0xFFFF'FFFF, 0, 0, 0}.encodeSEI(VideoCodec::h264);
    const std::size_t firstDigit = sei.size() - 1 - 20;
    ASSERT_EQ(sei[firstDigit], 0x8F);
    sei[firstDigit] = 0x90;
    EXPECT_EQ(FrameStamps::parse(VideoCodec::h264, sei), std::nullopt);
}

} // namespace
} // namespace pelorin
