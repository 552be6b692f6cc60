#pragma once

#include "PelorinHost/Linux/X11Cursor.h"
#include "PelorinHost/Linux/X11Monitors.h"
#include "PelorinHost/Linux/X11ScreenGrabber.h"
#include "PelorinHost/Platform/DisplayCapture.h"
#include "PelorinHost/Screen/FramePacer.h"
#include "PelorinHost/Screen/PicturePainter.h"

#include <optional>

namespace pelorin {

// Streams one monitor of an X server. Everything starts with an event of the server: no timer runs unless a
// change is known and waits for its turn. Lives on the capture queue; owns its connection, the grabber and
// the picture. Owned by the ScreenStreamer.
class X11CaptureStream final : public CaptureStream {
public:
    static Result<std::unique_ptr<CaptureStream>, PlatformError> open(const std::string& displayName,
        std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue);

    Result<void, PlatformError> start() override;
    Result<void, PlatformError> updateConfiguration(const CaptureConfiguration& newConfiguration) override;
    Result<CaptureSample, PlatformError> captureStill(const CaptureConfiguration& newConfiguration) override;

private:
    X11CaptureStream(X11Connection newConnection, QueueRef newQueue);

    void configure(const CaptureConfiguration& newConfiguration);
    X11Connection::EventHandler eventHandler();
    void handle(const xcb_generic_event_t& event);
    void noteChange();

    void advance();
    std::optional<ShareableDisplay> findDisplay(std::uint32_t id);
    bool isTooEarly();
    bool refreshDisplay();
    Result<std::optional<CaptureSample>, PlatformError> takePicture();
    std::optional<std::vector<PixelRect>> changedPictureRects();
    Result<void, PlatformError> paint(std::span<const PixelRect> rects, CaptureTimes& times);
    PixelRect rootRectOf(const PixelRect& pictureRect) const;
    PlatformError silence() const;
    void stopWith(PlatformError reason);

    QueueRef queue;
    X11Connection connection;
    std::optional<X11ScreenGrabber> grabber;
    ShareableDisplay display;
    CaptureConfiguration configuration;
    std::optional<X11DrawnCursor> cursor; // while configured to be shown
    std::optional<PicturePainter> painter;
    FramePacer pacer{1};
    std::optional<SteadyTime> changedAt; // something on the screen did, and no picture has shown it yet
    bool isAllChanged = true;
    bool mayMonitorsDiffer = false;
    bool isStopped = false;
    std::uint64_t sequence = 0;
    Subscription turn; // set while a change waits for its turn
    Subscription readable;
    Lifetime lifetime;
};

} // namespace pelorin
