#include "PelorinHost/Screen/VideoEncoder.h"

#include "Tests/Fakes/FakeCompression.h"
#include "Tests/PelorinHost/LogLines.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace compressionProperty;
using testing::ElementsAre;
using enum EncoderMode;

PixelBuffer picture(int widthPx, int heightPx, std::uint64_t sequence = 1)
{
    PixelBuffer buffer;
    buffer.widthPx = widthPx;
    buffer.heightPx = heightPx;
    buffer.sequence = sequence;
    return buffer;
}

constexpr SteadyTime at(Duration sinceEpoch)
{
    return SteadyTime(sinceEpoch);
}

// What a VideoEncoder reports, in order: "format 2", "key 1000", "delta 2000".
struct Reports {
    explicit Reports(VideoEncoder& encoder)
    {
        encoder.onFormat = [this](VideoCodec codec, std::vector<Bytes> sets) {
            codecs.push_back(codec);
            events.push_back(fmt::format("format {}", sets.size()));
        };
        encoder.onFrame = [this](EncodedFrame frame) {
            events.push_back(fmt::format("{} {}", frame.isKeyframe ? "key" : "delta", frame.ptsMicros));
            frames.push_back(std::move(frame));
        };
    }
    std::vector<VideoCodec> codecs;
    std::vector<std::string> events;
    std::vector<EncodedFrame> frames;
};

TEST(VideoEncoder, fallsBackInItsFixedChain)
{
    using Status = std::map<std::pair<VideoCodec, EncoderMode>, CompressionStatus>;
    constexpr auto hevc = VideoCodec::hevc;
    constexpr auto h264 = VideoCodec::h264;
    const struct {
        const char* name;
        VideoCodec preference;
        Status statuses;
        bool givesNoSession;
        VideoCodec codec;
        bool isLowLatency;
        std::size_t requests;
    } cases[] = {
        {"H.264 at once", h264, {}, false, h264, true, 1},
        {"HEVC at once", hevc, {}, false, hevc, true, 1},
        {"HEVC too slow", hevc, {{{hevc, lowLatency}, compressionStatus::tooSlow}}, false, h264, true, 2},
        {"no low latency", h264, {{{h264, lowLatency}, -12908}}, false, h264, false, 2},
        {"HEVC without any low latency", hevc, {{{hevc, lowLatency}, -1}, {{h264, lowLatency}, -2}}, false,
            h264, false, 3},
        {"nothing", h264, {{{h264, lowLatency}, -2}, {{h264, hardwareAccelerated}, -3}}, false, h264, false,
            2},
        {"success without a session", h264, {}, true, h264, true, 1},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.name);
        FakeCompression compression;
        compression.statuses = expected.statuses;
        compression.givesNoSession = expected.givesNoSession;
        VideoEncoder encoder(compression, expected.preference, 12'999'999, 60);
        encoder.encode(picture(1280, 720), at(1ms));
        EXPECT_EQ(encoder.codec(), expected.codec);
        EXPECT_EQ(encoder.usesLowLatencyRateControl(), expected.isLowLatency);
        EXPECT_EQ(compression.requests.size(), expected.requests);
    }
}

TEST(VideoEncoder, staysWithH264OnceItFellBack)
{
    FakeCompression compression;
    compression.statuses[{VideoCodec::hevc, lowLatency}] = compressionStatus::tooSlow;
    VideoEncoder encoder(compression, VideoCodec::hevc, 1'000'000, 30);
    const Reports reports(encoder);
    encoder.encode(picture(640, 400), at(1ms));
    compression.statuses.clear();
    encoder.encode(picture(320, 200), at(2ms));
    EXPECT_EQ(compression.requests.size(), 3U);
    EXPECT_EQ(compression.requests.back().codec, VideoCodec::h264);
    EXPECT_THAT(reports.codecs, ElementsAre(VideoCodec::h264, VideoCodec::h264));
}

TEST(VideoEncoder, triesAgainWithTheNextPictureWhenNoEncoderCouldBeMade)
{
    FakeCompression compression;
    compression.statuses
        = {{{VideoCodec::h264, lowLatency}, -2}, {{VideoCodec::h264, hardwareAccelerated}, -3}};
    VideoEncoder encoder(compression, VideoCodec::h264, 1'000'000, 30);
    const Reports reports(encoder);
    encoder.encode(picture(640, 400), at(1ms));
    EXPECT_TRUE(reports.events.empty());
    compression.statuses.clear();
    encoder.encode(picture(640, 400), at(2ms));
    EXPECT_THAT(reports.events, ElementsAre("format 2", "key 2000"));
    EXPECT_TRUE(encoder.usesLowLatencyRateControl());
}

TEST(VideoEncoder, toleratesRejectedProperties)
{
    const LogLines log("encoder");
    FakeCompression compression;
    compression.propertyStatuses["ExpectedFrameRate"] = compressionStatus::propertyNotSupported;
    VideoEncoder encoder(compression, VideoCodec::h264, 8'000'000, 30);
    encoder.encode(picture(640, 400), at(1ms));

    const auto& session = compression.lastSession();
    EXPECT_EQ(session.last<Profile>()->value, ProfileLevel::h264ConstrainedHighAutoLevel);
    EXPECT_EQ(session.last<DataRateLimits>()->bytes, 1'500'000);
    EXPECT_TRUE(session.isPrepared);
    EXPECT_THAT(log.lines,
        ElementsAre("encoder property ExpectedFrameRate rejected: -12900",
            "encoder H.264 640x400 @ 8 Mbps, low latency: true"));
}

TEST(VideoEncoder, forcesAKeyframeFirstThenOnDemandAndAfterEveryChangeOfSize)
{
    FakeCompression compression;
    VideoEncoder encoder(compression, VideoCodec::h264, 8'000'000, 60);
    const Reports reports(encoder);
    encoder.encode(picture(640, 400), at(1ms));
    encoder.encode(picture(640, 400), at(2ms));
    encoder.setForceKeyframe();
    encoder.encode(picture(640, 400), at(3ms));
    encoder.encode(picture(640, 400), at(4ms));
    encoder.encode(picture(640, 402), at(5ms));
    EXPECT_THAT(reports.events,
        ElementsAre("format 2", "key 1000", "delta 2000", "format 2", "key 3000", "delta 4000", "format 2",
            "key 5000"));
    ASSERT_EQ(compression.sessions.size(), 2U);
    EXPECT_TRUE(compression.sessions[0]->isCompleted);
    EXPECT_TRUE(compression.sessions[0]->isDestroyed);
}

TEST(VideoEncoder, owesTheKeyframeOfAnEncodeThatFailed)
{
    const LogLines log("encoder");
    FakeCompression compression;
    VideoEncoder encoder(compression, VideoCodec::h264, 8'000'000, 60);
    const Reports reports(encoder);
    compression.encodeStatus = compressionStatus::failed;
    encoder.encode(picture(640, 400), at(1ms));
    EXPECT_EQ(log.lines.back(), "encode failed: -12903");
    compression.encodeStatus = compressionStatus::success;
    encoder.encode(picture(640, 400), at(2ms));
    EXPECT_THAT(reports.events, ElementsAre("format 2", "key 2000"));
}

TEST(VideoEncoder, handsASampleThroughAndDropsWhatIsNone)
{
    const LogLines log("encoder");
    FakeCompression compression;
    compression.emitsAtOnce = false;
    VideoEncoder encoder(compression, VideoCodec::h264, 8'000'000, 60);
    const Reports reports(encoder);
    auto buffer = picture(640, 400);
    buffer.times.grabbed = at(7ms);
    for (int i = 0; i < 4; ++i) encoder.encode(buffer, at(1ms));
    auto& session = compression.lastSession();

    FakeCompression::emit(session, 0, -5, {});
    EXPECT_EQ(log.lines.back(), "encoder output error: -5");
    auto notReady = FakeCompression::sampleFor(session, session.encodes[1]);
    notReady.isDataReady = false;
    FakeCompression::emit(session, 1, compressionStatus::success, notReady);
    EXPECT_TRUE(reports.events.empty());

    auto sample = FakeCompression::sampleFor(session, session.encodes[0]);
    sample.nalLengthSize = 2;
    const Bytes data = sample.data;
    FakeCompression::emit(session, 2, compressionStatus::success, sample);
    EXPECT_EQ(log.lines.back(), "unexpected NAL length size 2; client assumes 4");
    ASSERT_THAT(reports.events, ElementsAre("format 2", "key 1000"));
    EXPECT_EQ(reports.frames[0].data, data);
    EXPECT_EQ(reports.frames[0].captureTimes.grabbed, at(7ms));
    EXPECT_EQ(reports.frames[0].encodedAt, at(1ms));

    sample.parameterSets.clear();
    FakeCompression::emit(session, 3, compressionStatus::success, sample);
    EXPECT_THAT(reports.events, ElementsAre("format 2", "key 1000", "key 1000"));
}

TEST(VideoEncoder, completesWhatIsUnderWayWhenDestroyedAndIgnoresOutputsThatOutliveIt)
{
    FakeCompression compression;
    compression.emitsAtOnce = false;
    auto encoder = std::make_unique<VideoEncoder>(compression, VideoCodec::h264, 8'000'000, 60);
    const Reports reports(*encoder);
    encoder->encode(picture(640, 400), at(1ms));
    encoder->encode(picture(640, 400), at(2ms));
    encoder.reset();
    EXPECT_THAT(reports.events, ElementsAre("format 2", "key 1000", "delta 2000"));
    auto& session = compression.lastSession();
    EXPECT_TRUE(session.isDestroyed);
    FakeCompression::emit(session, 0);
    EXPECT_EQ(reports.events.size(), 3U);
}

} // namespace
} // namespace pelorin
