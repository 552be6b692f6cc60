#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/PixelBuffer.h"

#include <memory>
#include <string>
#include <variant>

namespace pelorin {

// Platform status codes; 0 is success, the rest is for the log.
using CompressionStatus = int;
namespace compressionStatus {
inline constexpr CompressionStatus success = 0;
inline constexpr CompressionStatus notAvailable = -12908; // no encoder for that codec and mode
inline constexpr CompressionStatus tooSlow
    = -12915; // exists, but can't hold the asked rate at the asked size
inline constexpr CompressionStatus badParameter = -12902;
inline constexpr CompressionStatus propertyNotSupported = -12900;
inline constexpr CompressionStatus failed = -12903;
} // namespace compressionStatus

// What is asked of an encoder: lowLatency holds the frame rate in real time, gives every frame out at once
// and follows the bitrate within a second, in software or hardware; hardwareAccelerated is any encoder of
// regular real-time mode.
enum class EncoderMode { lowLatency, hardwareAccelerated };

struct CompressionRequest {
    VideoCodec codec = VideoCodec::h264;
    int widthPx = 0;
    int heightPx = 0;
    EncoderMode mode = EncoderMode::lowLatency;
    int frameRate = 60; // expected, frames per second
};

enum class ProfileLevel { hevcMainAutoLevel, h264ConstrainedHighAutoLevel, h264HighAutoLevel };

// One property of a session, under the name that logs give it.
namespace compressionProperty {
struct RealTime {
    bool value;
};
struct AllowFrameReordering {
    bool value;
};
struct Profile {
    ProfileLevel value;
};
struct ExpectedFrameRate {
    int value;
};
struct MaxKeyFrameInterval {
    int frames;
};
struct MaxKeyFrameIntervalDuration {
    double seconds;
};
struct AverageBitRate {
    int bitsPerSecond;
};
struct DataRateLimits {
    int bytes;
    double seconds;
}; // no span of that length may exceed that many bytes
} // namespace compressionProperty
using CompressionProperty
    = std::variant<compressionProperty::RealTime, compressionProperty::AllowFrameReordering,
        compressionProperty::Profile, compressionProperty::ExpectedFrameRate,
        compressionProperty::MaxKeyFrameInterval, compressionProperty::MaxKeyFrameIntervalDuration,
        compressionProperty::AverageBitRate, compressionProperty::DataRateLimits>;

// What an encoder made of one picture.
struct CompressedSample {
    bool isDataReady = false;
    bool isNotSync = false; // a delta frame
    std::vector<Bytes>
        parameterSets; // for a keyframe: H.264 SPS, PPS; HEVC VPS, SPS, PPS; without length or start code
    int nalLengthSize = 4;
    Bytes data; // the access unit, each NAL unit behind its big-endian length; no parameter sets, no start
                // codes
    SteadyTime presentationTime;
    CaptureTimes captureTimes; // of the picture, handed through
    SteadyTime encodedAt;
};

// A working encoder. encode is called on the capture queue, setProperty on any; the implementation guards
// itself, and setProperty never waits for a frame in work.
class CompressionSession {
public:
    virtual ~CompressionSession()
        = default; // invalidates; call completeFrames first to get what is under way

    // Status and, on success, the sample. May arrive on any thread, in order, or within encode.
    using Output = std::function<void(CompressionStatus, CompressedSample)>;

    // At any time; rate properties apply from the next frame on, without a keyframe.
    virtual CompressionStatus setProperty(const CompressionProperty& property) = 0;
    virtual CompressionStatus prepareToEncodeFrames() = 0;
    virtual CompressionStatus encode(
        const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output)
        = 0;
    virtual void completeFrames() = 0; // every picture under way has been output when it returns
};

class Compression {
public:
    virtual ~Compression() = default;

    struct Created {
        CompressionStatus status = compressionStatus::notAvailable;
        std::unique_ptr<CompressionSession> session; // set when status is success
    };
    // Thread-safe. What a probe found about an encoder is remembered, so only the first call may take long.
    virtual Created createSession(const CompressionRequest& request) = 0;
};

// "AverageBitRate" and so on.
std::string nameOf(const CompressionProperty& property);

} // namespace pelorin
