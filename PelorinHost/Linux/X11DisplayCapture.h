#pragma once

#include "PelorinHost/Linux/X11Monitors.h"
#include "PelorinHost/Platform/DisplayCapture.h"

namespace pelorin {

// The monitors of an X server and streams of them. Any queue; owned by the platform. Each stream has a
// connection of its own.
class X11DisplayCapture final : public DisplayCapture {
public:
    explicit X11DisplayCapture(std::string display); // as in $DISPLAY; empty takes that variable

    std::vector<ShareableDisplay> shareableDisplays() override;
    Result<std::unique_ptr<CaptureStream>, PlatformError> makeStream(
        std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue) override;

private:
    const std::string displayName;
    X11MonitorCache monitors;
};

} // namespace pelorin
