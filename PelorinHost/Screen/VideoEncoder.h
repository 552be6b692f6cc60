#pragma once

#include "PelorinHost/Platform/Compression.h"
#include "PelorinNet/Log.h"

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
// to be had. encode runs on the capture queue, setBitrate and setForceKeyframe on the session's; the lock
// guards session, forceKeyframe and bitrate and is never held across an encode. Owned by the ScreenStreamer.
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

    VideoCodec codec() const;
    bool usesLowLatencyRateControl() const;

private:
    struct Output;

    Compression& compression;
    std::shared_ptr<Output> output; // what the output handler may still reach after we are gone
    // The rest of the state is the implementation's to lay out.
    struct State;
    std::unique_ptr<State> state;
};

} // namespace pelorin
