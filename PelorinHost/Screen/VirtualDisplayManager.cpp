#include "PelorinHost/Screen/VirtualDisplayManager.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr PointSize leastSize{320, 200};
constexpr PointSize largestSize{8192, 8192};

const VirtualDisplayDescriptor descriptor{.name = "Pelorin",
    .maxPixelsWide = largestSize.width,
    .maxPixelsHigh = largestSize.height,
    .millimetersWide = 170,
    .millimetersHigh = 120,
    .vendorID = 53456,
    .productID = 1,
    .serialNum = 1};
constexpr int refreshRate = 60;

constexpr int creationAttempts = 8; // a machine whose displays are asleep refuses at first
constexpr auto creationPause = 300ms;
constexpr int mirroringAttempts = 6;
constexpr auto mirroringPause = 250ms;
constexpr int notOnline = 1000; // in place of the platform's code

// Also in place of a scale that is no number or none at all.
double usable(float pixelsPerPoint, double otherwise)
{
    return std::isfinite(pixelsPerPoint) && pixelsPerPoint > 0 ? double{pixelsPerPoint} : otherwise;
}

int evenWithin(double points, int least, int largest)
{
    const double even = 2 * std::round(points / 2);
    return static_cast<int>(std::clamp(even, double(least), double(largest)));
}

} // namespace

PointSize pointSizeFor(const Viewport& viewport, float density)
{
    const double pixelsPerPoint = usable(density, usable(viewport.scale, 1));
    return {evenWithin(viewport.widthPx / pixelsPerPoint, leastSize.width, largestSize.width),
        evenWithin(viewport.heightPx / pixelsPerPoint, leastSize.height, largestSize.height)};
}

VirtualDisplayManager::VirtualDisplayManager(Displays& newDisplays, QueueRef newQueue)
    : displays(newDisplays),
      queue(std::move(newQueue))
{
}

VirtualDisplayManager::~VirtualDisplayManager()
{
    remove();
}

void VirtualDisplayManager::ensureDisplay(PointSize size, Owner newOwner, Done newDone)
{
    queue->assertCurrent();
    const bool wasInterrupted = done != nullptr;
    finish(std::nullopt);
    owner = std::move(newOwner);
    wanted = size;
    done = std::move(newDone);
    if (display && !isOnline()) remove();
    if (!display) return create(1);
    if (pointSize != size) return shape();
    if (wasInterrupted) return mirror(1);
    finish(display->displayID());
}

void VirtualDisplayManager::release(const Owner& leaving)
{
    queue->assertCurrent();
    if (owner != leaving) return;
    owner.reset();
    finish(std::nullopt);
    remove();
}

void VirtualDisplayManager::create(int attempt)
{
    display = displays.createVirtualDisplay(descriptor);
    if (display) return shape();
    if (attempt == creationAttempts) {
        log.error("could not create virtual display");
        return finish(std::nullopt);
    }
    log.warning("virtual display not created (attempt {}); displays may still be waking", attempt);
    retry = queue->after(creationPause, [this, attempt] { create(attempt + 1); });
}

// A display that has a shape already takes on the new one as it is: removed first, it would show the
// arrangement without it in between.
void VirtualDisplayManager::shape()
{
    const auto applied = display->applySettings({.hiDPI = true, .size = wanted, .refreshRate = refreshRate});
    if (!applied) {
        log.error("applySettings {}x{} failed", wanted.width, wanted.height);
        log.info("{}", applied.error().description);
        remove();
        return finish(std::nullopt);
    }
    pointSize = wanted;
    mirror(1);
}

void VirtualDisplayManager::mirror(int attempt)
{
    const int failure = tryToMirror();
    if (failure != 0) {
        log.warning("mirroring attempt {} failed: {}", attempt, failure);
        if (attempt < mirroringAttempts) {
            retry = queue->after(mirroringPause, [this, attempt] { mirror(attempt + 1); });
            return;
        }
        log.error("could not mirror physical displays; the virtual display stays an extra screen");
    } else {
        mirrored = true;
    }
    log.info("virtual display {} at {}x{} pt", display->displayID(), wanted.width, wanted.height);
    finish(display->displayID());
}

int VirtualDisplayManager::tryToMirror()
{
    auto others = displays.onlineDisplays();
    if (std::erase(others, display->displayID()) == 0) return notOnline;
    return displays.mirror(others, display->displayID());
}

void VirtualDisplayManager::finish(std::optional<std::uint32_t> displayID)
{
    retry.cancel();
    if (const auto report = std::exchange(done, nullptr)) report(displayID);
}

void VirtualDisplayManager::remove()
{
    display.reset();
    pointSize.reset();
    if (!std::exchange(mirrored, false)) return;
    displays.restoreArrangement();
    log.info("virtual display removed, display arrangement restored");
}

bool VirtualDisplayManager::isOnline() const
{
    return std::ranges::count(displays.onlineDisplays(), display->displayID()) > 0;
}

} // namespace pelorin
