#include "PelorinHost/Linux/X11DisplayCapture.h"

#include "PelorinHost/Linux/X11CaptureStream.h"

namespace pelorin {

X11DisplayCapture::X11DisplayCapture(std::string display) : displayName(display), monitors(std::move(display))
{
}

std::vector<ShareableDisplay> X11DisplayCapture::shareableDisplays()
{
    return monitors.displays();
}

Result<std::unique_ptr<CaptureStream>, PlatformError> X11DisplayCapture::makeStream(
    std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue)
{
    return X11CaptureStream::open(displayName, displayID, configuration, std::move(captureQueue));
}

} // namespace pelorin
