#include "PelorinHost/Session/RateAdaptation.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

constexpr int usualMinBitrate = 1'500'000; // bits per second; below it a desktop's text is unreadable
constexpr double lowestMbps = 0.1; // the encoders refuse next to nothing
constexpr double highestMbps = 1000;
constexpr std::int64_t highestFrameRate = 240;
constexpr double mostPixels = 1e12;

// A phone reports about once a second; one that floods us must not drive encoder and log at its own pace.
constexpr int maxReportsPerSecond = 20;

} // namespace

int usableBitrate(double mbps)
{
    return static_cast<int>(std::clamp(mbps, lowestMbps, highestMbps) * 1'000'000);
}

int usableFrameRate(std::int64_t framesPerSecond)
{
    return static_cast<int>(std::clamp<std::int64_t>(framesPerSecond, 1, highestFrameRate));
}

RateAdaptation::RateAdaptation(const HostConfig& config)
    : bitrateController(std::min(usableBitrate(config.bitrateMbps), usualMinBitrate),
          usableBitrate(config.bitrateMbps), usableBitrate(config.bitrateMbps))
{
    if (config.bitrateMbps < lowestMbps || config.bitrateMbps > highestMbps)
        log.warning("bitrateMbps {} in the settings makes no sense; using {} kbps", config.bitrateMbps,
            bitrate() / 1000);
    if (usableFrameRate(config.maxFrameRate) != config.maxFrameRate)
        log.warning("maxFrameRate {} in the settings makes no sense; using {}", config.maxFrameRate,
            usableFrameRate(config.maxFrameRate));
}

void RateAdaptation::captureIs(const message::DisplayInfo& info)
{
    const double pixels = static_cast<double>(info.captureWidthPx) * info.captureHeightPx
        / (captureScaler.scale * captureScaler.scale);
    fullCapturePixels = static_cast<std::int64_t>(std::min(pixels, mostPixels));
}

RateAdaptation::Change RateAdaptation::update(const message::ClientReport& report)
{
    Change change;
    if (++reportsThisSecond > maxReportsPerSecond) return change;
    const int drops = std::exchange(dropsSinceReport, 0);
    change.bitrate = bitrateController.update(drops, report.rttMs);
    if (change.bitrate)
        log.info("bitrate -> {} kbps (rtt {:.1f} ms, drops {})", bitrate() / 1000, report.rttMs, drops);
    change.scale = captureScaler.update(bitrate(), fullCapturePixels);
    if (change.scale) log.info("capture scale -> {:f} at {} kbps", *change.scale, bitrate() / 1000);
    return change;
}

} // namespace pelorin
