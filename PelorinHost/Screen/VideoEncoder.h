#pragma once

#include "PelorinHost/Platform/Compression.h"
#include "PelorinNet/Log.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace pelorin {

// One encoded access unit on its way to the phone.
struct EncodedFrame {
    bool isKeyframe = false;
    std::uint64_t ptsMicros = 0; // host's steady clock
    Bytes data; // NAL units behind 4-byte lengths
    CaptureTimes captureTimes;
    SteadyTime encodedAt;
};

// Turns pictures into a low-latency H.264 or HEVC stream: makes its compression session at the size of the
// first picture, makes it anew when the size changes, and falls back in a fixed chain when an encoder is not
// to be had. Failures are logged and cost the picture; the next one tries again. encode runs on the capture
// queue, setBitrate and setForceKeyframe on the session's. Owned by the ScreenStreamer.
class VideoEncoder {
public:
    VideoEncoder(
        Compression& compression, VideoCodec codecPreference, int startBitrate, int expectedFrameRate);
    ~VideoEncoder(); // completes what is under way, callbacks included

    // On the thread the platform emits on; set before the first encode.
    std::function<void(VideoCodec, std::vector<Bytes> parameterSets)> onFormat; // ahead of each keyframe
    std::function<void(EncodedFrame)> onFrame;

    void encode(const PixelBuffer& picture, SteadyTime presentationTime);
    void setBitrate(int bitsPerSecond);
    void setForceKeyframe();

    VideoCodec codec() const { return currentCodec; }
    bool usesLowLatencyRateControl() const { return isLowLatency; }

private:
    struct Receiver;

    std::shared_ptr<CompressionSession> sessionFor(const PixelBuffer& picture);
    std::shared_ptr<CompressionSession> createSession(int widthPx, int heightPx);
    Compression::Created createInChain(int widthPx, int heightPx);
    void configure(CompressionSession& made, int rate);
    void install(std::shared_ptr<CompressionSession> made, int configuredRate);
    void tearDown();

    Compression& compression;
    const int frameRate;
    const Log log{"encoder"};
    std::atomic<VideoCodec> currentCodec; // moves from HEVC to H.264 at most
    std::atomic<bool> isLowLatency = false;
    int width = 0; // of the current session
    int height = 0;
    std::shared_ptr<Receiver> receiver; // the current session's outputs watch it; they may outlive us

    std::mutex lock; // guards the rest; never held across an encode
    std::shared_ptr<CompressionSession> session;
    bool forceKeyframe = true;
    int bitrate; // bits per second
};

} // namespace pelorin
