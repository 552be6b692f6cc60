#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/PixelBuffer.h"
#include "PelorinHost/Platform/PlatformError.h"

#include <memory>
#include <optional>
#include <string>

namespace pelorin {

// A display that can be captured now.
struct ShareableDisplay {
    std::uint32_t id = 0; // never 0; the same display keeps it while the display server runs
    std::string name;
    int modeWidthPx = 0; // of the current mode; 0 when the display has none
    int modeHeightPx = 0;
    Rect bounds; // global points
    bool isMain = false;
    bool operator==(const ShareableDisplay&) const = default;
};

struct CaptureConfiguration {
    int widthPx = 0; // even
    int heightPx = 0;
    int maxFrameRate = 60; // pictures come no faster than this
    bool showsCursor = true; // drawn into the picture
    bool operator==(const CaptureConfiguration&) const = default;
};

enum class FrameStatus { complete = 0, idle = 1, blank = 2, suspended = 3, started = 4, stopped = 5 };

// One report of a running stream. Only complete reports carry a picture.
struct CaptureSample {
    FrameStatus status = FrameStatus::complete;
    std::shared_ptr<const PixelBuffer> picture;
    SteadyTime presentationTime; // when the screen changed
};

// One display being captured. Lives on the capture queue; callbacks arrive there and may destroy it. A
// picture comes when the screen changed, the first one at once after start; a still screen brings nothing and
// costs nothing.
class CaptureStream {
public:
    virtual ~CaptureStream() = default; // stops, no callback afterwards

    std::function<void(const CaptureSample&)> onSample;
    std::function<void(PlatformError)> onStopped; // stopped by itself, at most once
    // The display's mode or bounds changed. Pictures keep the configured size, now showing the whole of the
    // display as it became, until updateConfiguration says otherwise.
    std::function<void(const ShareableDisplay&)> onGeometryChanged;

    virtual Result<void, PlatformError> start() = 0;
    // From the next picture on, which follows at once and is damaged as a whole.
    virtual Result<void, PlatformError> updateConfiguration(const CaptureConfiguration& configuration) = 0;
    // The display as it is now, whether or not it changed. The configuration stays for the pictures after it.
    virtual Result<CaptureSample, PlatformError> captureStill(const CaptureConfiguration& configuration) = 0;
};

class DisplayCapture {
public:
    virtual ~DisplayCapture() = default;

    // The displays now, the main one first; empty when there are none or the display server is gone. Any
    // queue.
    virtual std::vector<ShareableDisplay> shareableDisplays() = 0;
    // A stream that is not started yet, whose queue is captureQueue; called on it. Null without such a
    // display, which may go at any moment, also since it was listed.
    virtual Result<std::unique_ptr<CaptureStream>, PlatformError> makeStream(
        std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue)
        = 0;
};

} // namespace pelorin
