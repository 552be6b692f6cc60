#include "PelorinHost/Linux/LinuxPlatform.h"

#include "PelorinHost/Linux/LinuxCompression.h"
#include "PelorinHost/Linux/LinuxPower.h"
#include "PelorinHost/Linux/LinuxScreenLock.h"
#include "PelorinHost/Linux/LinuxSystem.h"
#include "PelorinHost/Linux/X11CursorSource.h"
#include "PelorinHost/Linux/X11DisplayBounds.h"
#include "PelorinHost/Linux/X11DisplayCapture.h"
#include "PelorinHost/Linux/X11Displays.h"
#include "PelorinHost/Linux/X11Pasteboard.h"
#include "PelorinHost/Linux/X11Permissions.h"
#include "PelorinHost/Linux/XtestEventPosting.h"

#include <atomic>

namespace pelorin {
namespace {

// An X11 desktop; each backend connects for itself when it is first needed.
class X11Platform final : public HostPlatform {
public:
    explicit X11Platform(const std::string& newDisplay)
        : display(newDisplay),
          capture(display),
          bounds(display),
          arrangement(display),
          keepAwake(display),
          allowed(display)
    {
    }
    ~X11Platform() override
    {
        if (hasPosted) XtestEventPosting::tidy(display); // what the last session typed last
    }

    DisplayCapture& displayCapture() override { return capture; }
    DisplayBounds& displayBounds() override { return bounds; }
    Displays& displays() override { return arrangement; }
    Compression& compression() override { return encoders; }
    Power& power() override { return keepAwake; }
    Permissions& permissions() override { return allowed; }
    System& system() override { return machine; }

    void letGoAfterEarlierHost() override { XtestEventPosting::tidy(display); }
    std::unique_ptr<EventPosting> makeEventPosting(QueueRef sessionQueue) override
    {
        // Only now, since a second host that is about to be turned away must not disturb the first.
        if (!hasPosted.exchange(true)) XtestEventPosting::tidy(display);
        return std::make_unique<XtestEventPosting>(std::move(sessionQueue), display);
    }
    std::unique_ptr<Pasteboard> makePasteboard(QueueRef sessionQueue) override
    {
        return std::make_unique<X11Pasteboard>(std::move(sessionQueue), display);
    }
    std::unique_ptr<CursorSource> makeCursorSource() override
    {
        return std::make_unique<X11CursorSource>(display);
    }
    std::unique_ptr<ScreenLock> makeScreenLock(QueueRef lockQueue) override
    {
        const auto makePosting = [this, lockQueue] { return makeEventPosting(lockQueue); };
        return std::make_unique<LinuxScreenLock>(lockQueue, makePosting);
    }

private:
    const std::string display;
    X11DisplayCapture capture;
    X11DisplayBounds bounds;
    X11Displays arrangement;
    LinuxCompression encoders;
    LinuxPower keepAwake;
    X11Permissions allowed;
    LinuxSystem machine;
    std::atomic<bool> hasPosted = false;
};

} // namespace

std::unique_ptr<HostPlatform> makeLinuxPlatform(const std::string& display)
{
    return std::make_unique<X11Platform>(display);
}

std::unique_ptr<System> makeLinuxSystem()
{
    return std::make_unique<LinuxSystem>();
}

} // namespace pelorin
