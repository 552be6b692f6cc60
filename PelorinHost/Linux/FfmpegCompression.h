#pragma once

#include "PelorinHost/Platform/Compression.h"

#include <mutex>
#include <utility>

namespace pelorin {

// An encoder of libavcodec and how we drive it.
struct FfmpegEncoder {
    enum class Input { planar, interleaved, vaapiSurface };

    VideoCodec codec = VideoCodec::hevc;
    std::string name; // libavcodec's
    Input input = Input::planar;
    bool takesRateLive = false; // else a new rate means opening it anew
    std::vector<std::pair<std::string, std::string>> options;
    int trialWidthPx = 0; // of the pictures that it is tried with
    int trialHeightPx = 0;
};

std::vector<FfmpegEncoder> hardwareEncoders(); // NVENC, then VAAPI
FfmpegEncoder x265Encoder();

// HEVC in hardware or software and H.264 in hardware, by libavcodec. An encoder counts from its trial on:
// each trial picture must come out at once, and the time that a picture takes, scaled to the asked size,
// decides what rate it holds; low latency wants it to need half the time there is at most. A new rate costs
// all of these a keyframe, so a small change waits: cuts of a tenth are followed at once, rises when they add
// up to three tenths, and anything with the next forced keyframe.
class FfmpegCompression final : public Compression {
public:
    explicit FfmpegCompression(std::vector<FfmpegEncoder> candidatesInOrder);

    // Tries all candidates; takes up to a second. Any thread.
    void probe();

    // notAvailable when no encoder for the codec passed its trial (so far), tooSlow when none holds the rate.
    Created createSession(const CompressionRequest& request) override;

private:
    struct Proven {
        FfmpegEncoder encoder;
        double nanosecondsPerPixel;
    };

    const std::vector<FfmpegEncoder> candidates;
    std::mutex lock; // guards proven
    std::vector<Proven> proven;
};

} // namespace pelorin
