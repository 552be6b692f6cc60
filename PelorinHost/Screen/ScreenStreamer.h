#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/DisplayCapture.h"
#include "PelorinHost/Screen/VideoEncoder.h"

namespace pelorin {

struct ScreenStreamerError {
    enum class Kind { noDisplay, platform };
    Kind kind = Kind::noDisplay;
    std::string description;
};

// Width and height of the capture for a display of displayWidthPx x displayHeightPx, a phone's viewport and
// the capture scale: fitted, never enlarged, even, at least 320x200.
struct CaptureSize {
    int widthPx = 0;
    int heightPx = 0;
    bool operator==(const CaptureSize&) const = default;
};
CaptureSize captureSize(int displayWidthPx, int displayHeightPx, const Viewport& viewport, double scale);

// Captures one display at a size fitted to the viewport and encodes every complete picture. One per capture
// run: once stopped it stays so. Called on the session's queue; the stream, the encoder and the last picture
// live on the capture queue, where the callbacks run too: they must be thread-safe on the session's side and
// are set before start. Destroying it stops it; callbacks that are already running end on their own, later
// ones don't come.
class ScreenStreamer {
public:
    struct Settings {
        std::uint32_t displayID = 0;
        bool showsCursor = true;
        Viewport viewport;
        double scale = 1; // capture scale
        int maxFrameRate = 60;
        VideoCodec codecPreference = VideoCodec::h264;
        int startBitrate = 12'000'000;
    };
    ScreenStreamer(
        DisplayCapture& capture, Compression& compression, QueueRef captureQueue, Settings settings);
    ~ScreenStreamer();

    std::function<void(VideoCodec, std::vector<Bytes> parameterSets)> onFormat;
    std::function<void(EncodedFrame)> onFrame;
    std::function<void(message::DisplayInfo)> onDisplayInfo;
    std::function<void(std::string reason)> onError; // the capture stopped by itself

    // Looks the display up (25 times, 200 ms apart), makes the stream and starts it; done runs on the capture
    // queue.
    void start(std::function<void(Result<void, ScreenStreamerError>)> done);
    void stop();
    void update(Viewport viewport);
    void update(double scale);
    void rebuildConfiguration();
    void setBitrate(int bitsPerSecond);
    void requestKeyframe(); // also re-encodes the last picture, so that a still screen gives one at once
    void repeatLastFrame();
    void captureStill();

private:
    struct Run; // everything that lives on the capture queue
    std::shared_ptr<Run> run;
};

} // namespace pelorin
