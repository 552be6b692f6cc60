#include "PelorinHost/Linux/LinuxPlatform.h"

#include "PelorinHost/Linux/LinuxCompression.h"
#include "PelorinHost/Linux/LinuxSystem.h"
#include "PelorinHost/Linux/X11CursorSource.h"
#include "PelorinHost/Linux/X11DisplayBounds.h"
#include "PelorinHost/Linux/X11DisplayCapture.h"
#include "PelorinHost/Linux/X11Pasteboard.h"
#include "PelorinHost/Linux/X11Permissions.h"
#include "PelorinHost/Linux/X11Power.h"
#include "PelorinHost/Linux/XtestEventPosting.h"

namespace pelorin {
namespace {

class X11Platform final : public HostPlatform {
public:
    explicit X11Platform(std::string newDisplay)
        : xDisplay(std::move(newDisplay)),
          capture(xDisplay),
          bounds(xDisplay),
          powerOfDisplay(xDisplay),
          granted(xDisplay)
    {
    }

    DisplayCapture& displayCapture() override { return capture; }
    DisplayBounds& displayBounds() override { return bounds; }
    Compression& compression() override { return encoders; }
    Power& power() override { return powerOfDisplay; }
    Permissions& permissions() override { return granted; }
    System& system() override { return machine; }
    std::unique_ptr<EventPosting> makeEventPosting(QueueRef sessionQueue) override
    {
        return std::make_unique<XtestEventPosting>(std::move(sessionQueue), xDisplay);
    }
    std::unique_ptr<Pasteboard> makePasteboard(QueueRef sessionQueue) override
    {
        return std::make_unique<X11Pasteboard>(std::move(sessionQueue), xDisplay);
    }
    std::unique_ptr<CursorSource> makeCursorSource() override
    {
        return std::make_unique<X11CursorSource>(xDisplay);
    }

private:
    const std::string xDisplay;
    X11DisplayCapture capture;
    X11DisplayBounds bounds;
    LinuxCompression encoders;
    X11Power powerOfDisplay;
    X11Permissions granted;
    LinuxSystem machine;
};

} // namespace

std::unique_ptr<HostPlatform> makeLinuxPlatform(QueueMaker&, std::string display)
{
    return std::make_unique<X11Platform>(std::move(display));
}

} // namespace pelorin
