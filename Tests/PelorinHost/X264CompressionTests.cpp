#include "PelorinHost/Linux/X264Compression.h"

#include "Tests/Lab/VideoDecoder.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <thread>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using namespace compressionProperty;

constexpr int frameRate = 60;
constexpr Duration frameTime = std::chrono::duration_cast<Duration>(1s) / frameRate;

void setRate(CompressionSession& session, int bitsPerSecond)
{
    EXPECT_EQ(session.setProperty(AverageBitRate{bitsPerSecond}), 0);
    EXPECT_EQ(session.setProperty(DataRateLimits{bitsPerSecond / 16 * 3, 1}), 0);
}

// A session as VideoEncoder sets one up, with the phone's decoder behind it.
class Stream {
public:
    Stream(int widthPx, int heightPx, int bitsPerSecond) : picture(widthPx, heightPx)
    {
        auto created = compression.createSession({VideoCodec::h264, widthPx, heightPx, {}, frameRate});
        session = std::move(created.session);
        session->setProperty(Profile{ProfileLevel::h264ConstrainedHighAutoLevel});
        session->setProperty(MaxKeyFrameInterval{3600});
        setRate(*session, bitsPerSecond);
        EXPECT_EQ(session->prepareToEncodeFrames(), 0);
    }

    // Encodes, checks the access unit's form, decodes.
    void encode(const PixelBuffer& buffer, bool forceKeyframe = false)
    {
        bool isOut = false;
        const auto status = session->encode(
            buffer, now, forceKeyframe, [&](CompressionStatus outcome, CompressedSample output) {
                EXPECT_EQ(outcome, 0);
                sample = std::move(output);
                isOut = true;
            });
        ASSERT_EQ(status, 0);
        ASSERT_TRUE(isOut) << "an access unit comes out within its own encode";
        checkForm();
        now += frameTime;
        auto out = decoder.decode(sample);
        ASSERT_TRUE(out);
        decoded = std::move(*out);
    }
    void encodeNext(bool forceKeyframe = false) { encode(picture.next(), forceKeyframe); }

    double psnr(const PixelRect& rect) const { return decoded.psnr(picture, rect); }
    double psnr() const { return psnr(picture.whole()); }

    SyntheticPicture picture;
    CompressedSample sample;
    DecodedPicture decoded;
    std::unique_ptr<CompressionSession> session;

private:
    void checkForm() const
    {
        EXPECT_TRUE(sample.isDataReady);
        EXPECT_EQ(sample.nalLengthSize, 4);
        EXPECT_EQ(sample.presentationTime, now);
        EXPECT_EQ(sample.parameterSets.size(), sample.isNotSync ? 0U : 2U);
        const auto units = nalUnits(sample.data);
        ASSERT_TRUE(units && !units->empty());
        for (const ByteView unit : *units) {
            EXPECT_TRUE(isSlice(VideoCodec::h264, unit));
            EXPECT_EQ((unit[0] & 0x1F) == 5, !sample.isNotSync);
            EXPECT_FALSE(hasStartCode(unit));
        }
    }

    X264Compression compression;
    VideoDecoder decoder{VideoCodec::h264};
    SteadyTime now{1h};
};

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

TEST(X264Compression, encodesEverySizeIntoAPictureLikeItsSource)
{
    const std::pair<int, int> sizes[] = {{320, 200}, {1170, 730}, {642, 402}, {16, 16}, {1280, 720}};
    for (const auto& [width, height] : sizes) {
        SCOPED_TRACE(fmt::format("{}x{}", width, height));
        Stream stream(width, height, 8'000'000);
        stream.picture.drawText(stream.picture.whole());
        stream.encodeNext();
        EXPECT_FALSE(stream.sample.isNotSync);
        EXPECT_EQ(stream.decoded.widthPx, width);
        EXPECT_EQ(stream.decoded.heightPx, height);
        const Bytes& sps = stream.sample.parameterSets[0];
        EXPECT_EQ(sps[1], 100) << "High";
        EXPECT_EQ(sps[2] & 0x0C, 0x0C) << "constrained";
        for (int i = 0; i < 30; ++i) stream.encode(stream.picture.repeat());
        EXPECT_GT(stream.psnr(), 32);
    }
}

TEST(X264Compression, makesTheVeryPictureAKeyframeThatIsForced)
{
    Stream stream(640, 400, 4'000'000);
    for (int i = 0; i < 12; ++i) {
        stream.picture.drawText({0, 0, 320, 64}, i);
        const bool isForced = i == 5 || i == 6 || i == 9;
        stream.encodeNext(isForced);
        EXPECT_EQ(stream.sample.isNotSync, i > 0 && !isForced) << i;
        EXPECT_GT(stream.psnr(), 30) << i;
    }
}

} // namespace
} // namespace pelorin
