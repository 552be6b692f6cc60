#include "PelorinPhone/VideoDecoder.h"

#include "Tests/Peers/PictureEncoder.h"

#include <gtest/gtest.h>
#include <random>

using namespace pelorin;
using lab::PictureEncoder;

namespace {

constexpr int width = 160;
constexpr int height = 96;

// Far from the moving square.
int backgroundOf(const DecodedPicture& picture)
{
    return picture.lumaAt(picture.widthPx - 8, picture.heightPx - 8);
}

class VideoDecoderOf : public testing::TestWithParam<VideoCodec> {
protected:
    PictureEncoder encoder{GetParam(), width, height};
    VideoDecoder decoder;

    void adoptFormat()
    {
        const auto format = encoder.format();
        ASSERT_TRUE(decoder.setFormat(format.codec, format.parameterSets));
    }
};

INSTANTIATE_TEST_SUITE_P(Codecs, VideoDecoderOf, testing::Values(VideoCodec::h264, VideoCodec::hevc),
    [](const auto& parameters) { return parameters.param == VideoCodec::h264 ? "h264" : "hevc"; });

TEST_P(VideoDecoderOf, givesEveryPictureAtOnce)
{
    adoptFormat();
    for (int i = 0; i < 40; ++i) {
        const auto luma = static_cast<std::uint8_t>(40 + 4 * i);
        const auto frame = encoder.encode(luma, i == 20);
        EXPECT_EQ(frame.isKeyframe, i == 0 || i == 20);
        const auto picture = decoder.decode(frame.data);
        ASSERT_TRUE(picture) << i << ": " << picture.error().description;
        EXPECT_EQ(picture->widthPx, width);
        EXPECT_EQ(picture->heightPx, height);
        EXPECT_FALSE(picture->isFullRange);
        EXPECT_NEAR(backgroundOf(*picture), luma, 4) << i;
    }
}

TEST_P(VideoDecoderOf, keepsGivenPicturesWhileItGoesOn)
{
    adoptFormat();
    const auto first = decoder.decode(encoder.encode(60).data);
    ASSERT_TRUE(first);
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(decoder.decode(encoder.encode(200).data));
    ASSERT_TRUE(decoder.setFormat(VideoCodec::h264, {})); // a new decoder in the old one's place
    EXPECT_NEAR(backgroundOf(*first), 60, 4);
}

TEST_P(VideoDecoderOf, goesOnWithTheNextKeyframeAfterDamage)
{
    adoptFormat();
    ASSERT_TRUE(decoder.decode(encoder.encode(100).data));
    auto damaged = encoder.encode(120).data;
    damaged.resize(damaged.size() / 2);
    EXPECT_FALSE(decoder.decode(damaged)); // its last length points past the end
    const auto picture = decoder.decode(encoder.encode(140, true).data);
    ASSERT_TRUE(picture) << picture.error().description;
    EXPECT_NEAR(backgroundOf(*picture), 140, 4);
}

TEST_P(VideoDecoderOf, followsANewSizeInTheMiddleOfTheStream)
{
    adoptFormat();
    ASSERT_TRUE(decoder.decode(encoder.encode(100).data));
    PictureEncoder larger(GetParam(), 322, 202);
    ASSERT_TRUE(decoder.setFormat(GetParam(), larger.format().parameterSets));
    const auto picture = decoder.decode(larger.encode(90).data);
    ASSERT_TRUE(picture) << picture.error().description;
    EXPECT_EQ(picture->widthPx, 322); // what the codec padded is cut off again
    EXPECT_EQ(picture->heightPx, 202);
    EXPECT_NEAR(backgroundOf(*picture), 90, 4);
}

TEST_P(VideoDecoderOf, survivesWhateverArrives)
{
    adoptFormat();
    std::minstd_rand random(1);
    for (int round = 0; round < 300; ++round) {
        auto unit = encoder.encode(static_cast<std::uint8_t>(random() % 200), round % 10 == 0).data;
        const int kind = round % 5;
        if (kind == 1) unit.resize(random() % unit.size());
        if (kind == 2)
            for (int i = 0; i < 8; ++i) unit[random() % unit.size()] = static_cast<std::uint8_t>(random());
        if (kind == 3) std::fill(unit.begin() + 4, unit.end(), static_cast<std::uint8_t>(random()));
        if (kind == 4)
            for (auto& byte : unit) byte = static_cast<std::uint8_t>(random());
        const auto picture = decoder.decode(unit);
        if (picture) {
            EXPECT_EQ(picture->widthPx, width);
            EXPECT_EQ(picture->heightPx, height);
        }
    }
    const auto picture = decoder.decode(encoder.encode(77, true).data);
    ASSERT_TRUE(picture) << picture.error().description;
    EXPECT_NEAR(backgroundOf(*picture), 77, 4);
}

TEST_P(VideoDecoderOf, survivesDamagedParameterSets)
{
    std::minstd_rand random(2);
    const auto frame = encoder.encode(100);
    for (int round = 0; round < 200; ++round) {
        auto sets = encoder.format().parameterSets;
        auto& set = sets[random() % sets.size()];
        if (round % 3 == 0)
            set.resize(random() % set.size());
        else
            set[random() % set.size()] = static_cast<std::uint8_t>(random());
        if (decoder.setFormat(GetParam(), sets)) (void)decoder.decode(frame.data);
    }
    adoptFormat();
    EXPECT_TRUE(decoder.decode(frame.data));
}

TEST(VideoDecoder, changesTheCodecInTheMiddleOfTheStream)
{
    VideoDecoder decoder;
    for (const auto codec : {VideoCodec::h264, VideoCodec::hevc, VideoCodec::h264}) {
        PictureEncoder encoder(codec, width, height);
        ASSERT_TRUE(decoder.setFormat(codec, encoder.format().parameterSets));
        EXPECT_TRUE(decoder.decode(encoder.encode(50).data));
    }
}

TEST(VideoDecoder, fails)
{
    VideoDecoder decoder;
    EXPECT_FALSE(decoder.decode({0, 0, 0, 1, 0x65})); // before any format
    PictureEncoder encoder(VideoCodec::h264, width, height);
    ASSERT_TRUE(decoder.setFormat(VideoCodec::h264, encoder.format().parameterSets));
    const Bytes units[] = {{}, {0}, {0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 2, 0x65}, {0xFF, 0xFF, 0xFF, 0xFF, 1}};
    for (const Bytes& unit : units) EXPECT_FALSE(decoder.decode(unit)) << unit.size();
    EXPECT_TRUE(decoder.decode(encoder.encode(50).data));
}

} // namespace
