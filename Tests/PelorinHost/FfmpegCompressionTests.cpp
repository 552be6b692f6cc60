#include "PelorinHost/Linux/AccessUnit.h"
#include "PelorinHost/Linux/FfmpegCompression.h"
#include "PelorinHost/Linux/FfmpegSession.h"
#include "Tests/PelorinHost/EncodedStream.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace compressionProperty;
using testing::ElementsAre;
using enum EncoderMode;

Bytes concatenate(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(AccessUnit, keepsSlicesAndParameterSetsOfWhateverAnEncoderGives)
{
    constexpr auto h264 = VideoCodec::h264;
    constexpr auto hevc = VideoCodec::hevc;
    const Bytes sps{0x67, 100, 0, 3, 9};
    const Bytes pps{0x68, 0xCE};
    const Bytes idr{0x65, 0, 0, 3, 1, 0x80};
    const Bytes vps{0x40, 1, 7};
    const Bytes slice{0x26, 1, 5, 6};
    const Bytes longCode{0, 0, 0, 1};
    const Bytes shortCode{0, 0, 1};
    const auto length = [](std::uint8_t size) { return Bytes{0, 0, 0, size}; };
    const struct {
        const char* name;
        VideoCodec codec;
        Bytes encoded;
        std::vector<Bytes> parameterSets;
        Bytes data;
    } cases[] = {
        {"nothing", h264, {}, {}, {}},
        {"start codes of both lengths, a delimiter and SEI", h264,
            concatenate({longCode, {9, 0xF0}, longCode, sps, longCode, pps, shortCode, {6, 5, 1, 0x80},
                shortCode, idr, shortCode, idr}),
            {sps, pps}, concatenate({length(6), idr, length(6), idr})},
        {"zeros at the end", h264, concatenate({shortCode, idr, {0, 0, 0}}), {},
            concatenate({length(6), idr})},
        {"lengths", h264, concatenate({length(5), sps, length(2), pps, length(2), {6, 5}, length(6), idr}),
            {sps, pps}, concatenate({length(6), idr})},
        {"HEVC", hevc, concatenate({longCode, vps, longCode, {0x4E, 1, 3}, longCode, slice}), {vps},
            concatenate({length(4), slice})},
        {"a length beyond the end", h264, concatenate({length(6), idr, length(200), idr}), {},
            concatenate({length(6), idr})},
        {"empty units", h264, concatenate({shortCode, shortCode, idr, longCode}), {},
            concatenate({length(6), idr})},
        {"a length of none", h264, concatenate({length(0), length(6), idr}), {},
            concatenate({length(6), idr})},
    };
    for (const auto& [name, codec, encoded, parameterSets, data] : cases) {
        const auto unit = packAccessUnit(codec, encoded);
        EXPECT_EQ(unit.parameterSets, parameterSets) << name;
        EXPECT_EQ(unit.data, data) << name;
    }
}

// libavcodec's x264, in Annex B: stands in for hardware, which speaks that, too.
FfmpegEncoder annexBEncoder(const char* tune)
{
    return {VideoCodec::h264, "libx264", FfmpegEncoder::Input::interleaved, true,
        {{"preset", "ultrafast"}, {"tune", tune}, {"forced-idr", "1"}}, 320, 180};
}

TEST(FfmpegCompression, takesOnlyEncodersThatPassTheirTrial)
{
    auto unknown = annexBEncoder("zerolatency");
    unknown.name = "no_such_encoder";
    FfmpegCompression compression({unknown, annexBEncoder("film"), x265Encoder()});
    const CompressionRequest small{VideoCodec::hevc, 320, 200, lowLatency, 1};
    EXPECT_EQ(compression.createSession(small).status, compressionStatus::notAvailable) << "not tried yet";
    compression.probe();
    EXPECT_EQ(compression.createSession(small).status, compressionStatus::success);
    EXPECT_EQ(compression.createSession({VideoCodec::hevc, 8000, 8000, lowLatency, 240}).status,
        compressionStatus::tooSlow);
    EXPECT_EQ(compression.createSession({VideoCodec::h264, 320, 200, lowLatency, 1}).status,
        compressionStatus::notAvailable)
        << "an encoder that holds pictures back isn't real-time";
    EXPECT_FALSE(compression.createSession({VideoCodec::hevc, 321, 200, lowLatency, 1}).session);
}

// A stream and the numbers of its keyframes.
struct Feed : EncodedStream {
    explicit Feed(const FfmpegEncoder& encoder)
        : EncodedStream(
              encoder.codec, FfmpegSession::open(encoder, {encoder.codec, 320, 200}), 320, 200, 2'000'000)
    {
    }

    void feed(int pictures, bool forceFirst = false)
    {
        for (int i = 0; i < pictures; ++i, ++count) {
            picture.drawWaves({0, 0, 160, 100}, count);
            encodeNext(forceFirst && i == 0);
            if (!sample.isNotSync) keyframes.push_back(count);
            EXPECT_GT(psnr(), 25);
        }
    }

    std::vector<int> keyframes;
    int count = 0;
};

TEST(FfmpegSession, opensAnewForARateThatIsWorthAKeyframeAndWaitsWithOthers)
{
    Feed stream(x265Encoder());
    const auto ask = [&](int bitsPerSecond) { stream.session->setProperty(AverageBitRate{bitsPerSecond}); };
    stream.feed(3);
    ask(2'300'000);
    stream.feed(3);
    ask(1'950'000);
    stream.feed(3);
    EXPECT_THAT(stream.keyframes, ElementsAre(0)) << "small steps wait";
    ask(1'400'000);
    stream.feed(3);
    EXPECT_THAT(stream.keyframes, ElementsAre(0, 9)) << "a cut is followed";
    ask(1'600'000);
    stream.feed(3);
    ask(1'850'000);
    stream.feed(3);
    EXPECT_THAT(stream.keyframes, ElementsAre(0, 9, 15)) << "rises add up";
    stream.feed(3, true);
    EXPECT_THAT(stream.keyframes, ElementsAre(0, 9, 15, 18));
}

TEST(FfmpegSession, packsAnnexBAndTakesARateLive)
{
    Feed stream(annexBEncoder("zerolatency"));
    stream.feed(3);
    stream.session->setProperty(AverageBitRate{1'000'000});
    stream.feed(3);
    stream.feed(3, true);
    EXPECT_THAT(stream.keyframes, ElementsAre(0, 6));
}

TEST(FfmpegSession, givesOutWhatItHeldBackWhenCompletedAndGoesOnAfterwards)
{
    Feed stream(annexBEncoder("film"));
    int received = 0;
    const auto encode = [&](int pictures) {
        for (int i = 0; i < pictures; ++i)
            stream.session->encode(stream.picture.next(), SteadyTime(1h + 20ms * i), false,
                [&](CompressionStatus, const CompressedSample&) { ++received; });
    };
    encode(5);
    EXPECT_LT(received, 5);
    stream.session->completeFrames();
    EXPECT_EQ(received, 5);
    encode(2);
    stream.session->completeFrames();
    EXPECT_EQ(received, 7);
    encode(2);
    stream.session.reset();
    EXPECT_EQ(received, 7);
}

} // namespace
} // namespace pelorin
