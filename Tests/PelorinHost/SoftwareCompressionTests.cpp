#include "PelorinHost/Linux/FfmpegSession.h"
#include "PelorinHost/Linux/X264Compression.h"

#include "Tests/PelorinHost/EncodedStream.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <thread>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace compressionProperty;

constexpr int frameRate = 60;

std::unique_ptr<CompressionSession> makeSession(VideoCodec codec, int widthPx, int heightPx)
{
    const CompressionRequest request{codec, widthPx, heightPx, {}, frameRate};
    if (codec == VideoCodec::hevc) return FfmpegSession::open(x265Encoder(), request);
    return X264Compression().createSession(request).session;
}

struct Stream : EncodedStream {
    Stream(VideoCodec codec, int widthPx, int heightPx, int bitsPerSecond)
        : EncodedStream(codec, makeSession(codec, widthPx, heightPx), widthPx, heightPx, bitsPerSecond)
    {
    }
};

class SoftwareCompression : public testing::TestWithParam<VideoCodec> {};
INSTANTIATE_TEST_SUITE_P(, SoftwareCompression, testing::Values(VideoCodec::h264, VideoCodec::hevc),
    [](const auto& tested) { return tested.param == VideoCodec::hevc ? "HEVC" : "H264"; });

TEST(X264Compression, saysConstrainedHighInItsParameterSet)
{
    Stream stream(VideoCodec::h264, 640, 400, 8'000'000);
    stream.encodeNext();
    const Bytes& sps = stream.sample.parameterSets.at(0);
    EXPECT_EQ(sps[1], 100) << "High";
    EXPECT_EQ(sps[2] & 0x0C, 0x0C) << "constrained";
}

TEST(X264Compression, refusesWhatItCannotEncode)
{
    const struct {
        VideoCodec codec;
        int widthPx;
        int heightPx;
        CompressionStatus status;
    } cases[] = {
        {VideoCodec::hevc, 640, 400, compressionStatus::notAvailable},
        {VideoCodec::h264, 641, 400, compressionStatus::badParameter},
        {VideoCodec::h264, 640, 0, compressionStatus::badParameter},
        {VideoCodec::h264, -640, 400, compressionStatus::badParameter},
        {VideoCodec::h264, 100'000, 400, compressionStatus::badParameter},
    };
    X264Compression compression;
    for (const auto& [codec, width, height, status] : cases) {
        const auto created = compression.createSession({codec, width, height, {}, 60});
        EXPECT_EQ(created.status, status);
        EXPECT_FALSE(created.session);
    }
    const auto created = compression.createSession({VideoCodec::h264, 640, 400, {}, 60});
    EXPECT_EQ(created.session->setProperty(RealTime{false}), compressionStatus::propertyNotSupported);
    EXPECT_EQ(created.session->setProperty(AverageBitRate{0}), compressionStatus::badParameter);
    EXPECT_EQ(created.session->setProperty(Profile{ProfileLevel::hevcMainAutoLevel}),
        compressionStatus::propertyNotSupported);
    EXPECT_EQ(created.session->encode(SyntheticPicture(320, 200).next(), {}, false, {}),
        compressionStatus::badParameter);
}

TEST_P(SoftwareCompression, encodesEverySizeIntoAPictureLikeItsSource)
{
    const std::pair<int, int> sizes[] = {{320, 200}, {1170, 730}, {642, 402}, {64, 64}};
    for (const auto& [width, height] : sizes) {
        SCOPED_TRACE(fmt::format("{}x{}", width, height));
        Stream stream(GetParam(), width, height, 8'000'000);
        stream.picture.drawText(stream.picture.whole());
        stream.encodeNext();
        EXPECT_FALSE(stream.sample.isNotSync);
        EXPECT_EQ(stream.decoded.widthPx, width);
        EXPECT_EQ(stream.decoded.heightPx, height);
        for (int i = 0; i < 20; ++i) stream.encode(stream.picture.repeat());
        EXPECT_GT(stream.psnr(), 30);
    }
}

TEST_P(SoftwareCompression, makesTheVeryPictureAKeyframeThatIsForced)
{
    Stream stream(GetParam(), 640, 400, 4'000'000);
    for (int i = 0; i < 12; ++i) {
        stream.picture.drawText({0, 0, 320, 64}, i);
        const bool isForced = i == 5 || i == 6 || i == 9;
        stream.encodeNext(isForced);
        EXPECT_EQ(stream.sample.isNotSync, i > 0 && !isForced) << i;
        EXPECT_GT(stream.psnr(), 30) << i;
    }
}

// Only the damage is coded anew, and nothing of the old picture may stay. Bursts of small changes all over,
// with pictures skipped, repeated and marked wholly unchanged between them.
TEST(X264Compression, leavesNoStaleBlockWhereTheDamageWas)
{
    Stream stream(VideoCodec::h264, 1170, 730, 20'000'000);
    stream.picture.drawText(stream.picture.whole());
    stream.encodeNext();
    std::minstd_rand random(7);
    const auto below
        = [&](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)) & ~1; };
    for (int round = 0; round < 120; ++round) {
        PixelRect rect{below(1130), below(700), 0, 0};
        rect.width = std::max(2, std::min(below(200), 1170 - rect.x));
        rect.height = std::max(2, std::min(below(90), 730 - rect.y));
        if (round % 3 == 0) stream.picture.fill(rect, 30 + round, 60 + round, 200 - round);
        if (round % 3 != 0) stream.picture.drawText(rect, round);
        const auto buffer = stream.picture.next();
        if (round % 7 == 3) continue; // never reaches the encoder
        stream.encode(buffer);
        if (round % 5 == 0) stream.encode(stream.picture.repeat());
        if (round % 11 == 0) stream.encodeNext(); // a new picture without damage
        EXPECT_GT(stream.psnr(rect), 20) << round;
    }
    for (int i = 0; i < 30; ++i) stream.encode(stream.picture.repeat());
    // A block that was left behind would show in its own 16x16, however good the rest is.
    for (int y = 0; y < 720; y += 16)
        for (int x = 0; x < 1168; x += 16) EXPECT_GT(stream.psnr({x, y, 16, 10}), 30) << x << ", " << y;
}

TEST_P(SoftwareCompression, mendsAStillPictureAndThenHardlySendsAnything)
{
    Stream stream(GetParam(), 640, 400, 3'000'000);
    stream.picture.drawText(stream.picture.whole());
    stream.encodeNext();
    const double first = stream.psnr();
    std::size_t bytes = 0;
    for (int i = 0; i < 180; ++i) {
        stream.encode(stream.picture.repeat());
        if (i >= 120) bytes += stream.sample.data.size();
    }
    EXPECT_GT(stream.psnr(), std::max(first, 40.0));
    EXPECT_LT(bytes, 60 * 500U) << "a second of a still screen";
}

TEST_P(SoftwareCompression, keepsEverySecondUnderTheLimitEvenWithNoise)
{
    constexpr int bitsPerSecond = 1'500'000;
    Stream stream(GetParam(), 320, 200, bitsPerSecond);
    std::vector<std::size_t> sizes;
    for (unsigned i = 0; i < 3 * frameRate; ++i) {
        stream.picture.drawNoise(stream.picture.whole(), i);
        stream.encodeNext(i % 50 == 20);
        sizes.push_back(stream.sample.data.size());
    }
    std::size_t inSpan = 0;
    std::size_t most = 0;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        inSpan += sizes[i];
        if (i >= frameRate) inSpan -= sizes[i - frameRate];
        most = std::max(most, inSpan);
    }
    EXPECT_LE(most, bitsPerSecond / 8 * 1.55);
    EXPECT_GE(most, bitsPerSecond / 8 * 0.8) << "it uses what it is given";
}

TEST(X264Compression, followsANewBitrateWithinASecondAndWithoutAKeyframe)
{
    Stream stream(VideoCodec::h264, 640, 400, 8'000'000);
    int frame = 0;
    const auto secondsRate = [&] {
        std::size_t bytes = 0;
        for (int i = 0; i < frameRate; ++i) {
            stream.picture.drawWaves(stream.picture.whole(), frame++);
            stream.encodeNext();
            EXPECT_EQ(stream.sample.isNotSync, frame > 1);
            bytes += stream.sample.data.size();
        }
        return static_cast<double>(bytes) * 8;
    };
    secondsRate();
    EXPECT_NEAR(secondsRate(), 8e6, 1.6e6);
    for (const int rate : {2'000'000, 6'000'000}) {
        stream.setRate(rate);
        secondsRate();
        EXPECT_NEAR(secondsRate(), rate, rate * 0.2);
    }
}

// Bits that a pause left unused are the next picture's: ten pictures a second get what sixty would.
TEST(X264Compression, givesEachPictureTheBitsOfTheTimeThatPassed)
{
    const auto bitsOfASecond = [](int picturesPerSecond) {
        Stream stream(VideoCodec::h264, 640, 400, 2'000'000);
        stream.pace = 1'000'000'000ns / picturesPerSecond;
        std::size_t bytes = 0;
        for (int i = 0; i < 2 * picturesPerSecond; ++i) {
            stream.picture.drawWaves(stream.picture.whole(), i);
            stream.encodeNext();
            if (i >= picturesPerSecond) bytes += stream.sample.data.size();
        }
        return static_cast<double>(bytes) * 8;
    };
    for (const int picturesPerSecond : {10, 30, 60})
        EXPECT_NEAR(bitsOfASecond(picturesPerSecond), 2e6, 0.4e6) << picturesPerSecond;
}

TEST_P(SoftwareCompression, makesAKeyframeAtLeastEverySixtySeconds)
{
    const auto session = makeSession(GetParam(), 320, 200);
    session->setProperty(MaxKeyFrameIntervalDuration{60});
    SyntheticPicture picture(320, 200);
    const std::pair<Duration, bool> pictures[]
        = {{5s, true}, {6s, false}, {64s, false}, {65s, true}, {66s, false}, {200s, true}};
    for (const auto& [time, isKeyframe] : pictures)
        session->encode(
            picture.next(), SteadyTime(time), false, [&](CompressionStatus, CompressedSample out) {
                EXPECT_EQ(out.isNotSync, !isKeyframe) << time.count();
            });
}

TEST_P(SoftwareCompression, takesPropertiesFromAnotherThreadWhileItEncodes)
{
    Stream stream(GetParam(), 320, 200, 2'000'000);
    std::atomic<bool> isDone = false;
    std::jthread setter([&] {
        for (int i = 0; !isDone; ++i) {
            stream.setRate(1'000'000 + i % 100 * 100'000);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 30; ++i) {
        stream.picture.drawText({0, 0, 320, 64}, i);
        stream.encodeNext();
    }
    isDone = true;
}

} // namespace
} // namespace pelorin
