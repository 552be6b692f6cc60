#include "PelorinHost/Screen/PrivacyScreen.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// Something else may set the gamma at any time, as a night mode does, and displays get plugged in.
constexpr auto period = 1s;

const GammaTable black{{0, 0}, {0, 0}, {0, 0}};

} // namespace

PrivacyScreen::PrivacyScreen(Displays& newDisplays, QueueRef newQueue)
    : displays(newDisplays),
      queue(std::move(newQueue))
{
}

PrivacyScreen::~PrivacyScreen()
{
    if (timer) turnOff();
}

void PrivacyScreen::setEnabled(bool isEnabled)
{
    queue->assertCurrent();
    if (!isEnabled) return turnOff();
    if (timer) return;
    timer = queue->every(period, [this] { blacken(); });
    blacken();
    log.info("privacy screen on");
}

void PrivacyScreen::blacken()
{
    for (const auto id : displays.activeDisplays()) displays.setGamma(id, black);
}

void PrivacyScreen::turnOff()
{
    timer.cancel();
    displays.restoreGamma();
    log.info("privacy screen off");
}

} // namespace pelorin
