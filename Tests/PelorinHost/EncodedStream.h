#pragma once

#include "Tests/Lab/VideoDecoder.h"

#include <gtest/gtest.h>

namespace pelorin {

// A session as VideoEncoder sets one up, with the phone's decoder behind it.
class EncodedStream {
public:
    EncodedStream(VideoCodec newCodec, std::unique_ptr<CompressionSession> newSession, int widthPx,
        int heightPx, int bitsPerSecond)
        : picture(widthPx, heightPx),
          session(std::move(newSession)),
          codec(newCodec),
          decoder(newCodec)
    {
        session->setProperty(compressionProperty::Profile{codec == VideoCodec::hevc
                ? ProfileLevel::hevcMainAutoLevel
                : ProfileLevel::h264ConstrainedHighAutoLevel});
        session->setProperty(compressionProperty::MaxKeyFrameInterval{3600});
        setRate(bitsPerSecond);
        EXPECT_EQ(session->prepareToEncodeFrames(), 0);
    }

    void setRate(int bitsPerSecond)
    {
        EXPECT_EQ(session->setProperty(compressionProperty::AverageBitRate{bitsPerSecond}), 0);
        EXPECT_EQ(session->setProperty(compressionProperty::DataRateLimits{bitsPerSecond / 16 * 3, 1}), 0);
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
        now += pace;
        auto out = decoder.decode(sample);
        ASSERT_TRUE(out);
        decoded = std::move(*out);
    }
    void encodeNext(bool forceKeyframe = false) { encode(picture.next(), forceKeyframe); }

    double psnr(const PixelRect& rect) const { return decoded.psnr(picture, rect); }
    double psnr() const { return psnr(picture.whole()); }

    SyntheticPicture picture;
    CompressedSample sample;
    lab::DecodedPicture decoded;
    std::unique_ptr<CompressionSession> session;
    Duration pace = std::chrono::microseconds(16'667); // from picture to picture

private:
    void checkForm() const
    {
        EXPECT_TRUE(sample.isDataReady);
        EXPECT_EQ(sample.nalLengthSize, 4);
        EXPECT_EQ(sample.presentationTime, now);
        EXPECT_EQ(sample.parameterSets.size(), sample.isNotSync ? 0U : codec == VideoCodec::hevc ? 3U : 2U);
        const auto units = lab::nalUnits(sample.data);
        ASSERT_TRUE(units && !units->empty());
        for (const ByteView unit : *units) {
            EXPECT_TRUE(lab::isSlice(codec, unit));
            EXPECT_EQ(isInstantRefresh(unit), !sample.isNotSync);
            EXPECT_FALSE(lab::hasStartCode(unit));
        }
    }

    bool isInstantRefresh(ByteView unit) const
    {
        if (codec == VideoCodec::h264) return (unit[0] & 0x1F) == 5;
        const int type = unit[0] >> 1;
        return type == 19 || type == 20;
    }

    VideoCodec codec;
    lab::VideoDecoder decoder;
    SteadyTime now{std::chrono::hours(1)};
};

} // namespace pelorin
