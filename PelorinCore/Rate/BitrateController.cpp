#include "PelorinCore/Rate/BitrateController.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pelorin {

namespace {

// A lasting change of route is learned within some dozens of reports, while a single spike hardly shows.
constexpr double baselineCreep = 0.02;

} // namespace

BitrateController::BitrateController(int minBitrate, int maxBitrate, int start)
    : bitrate(std::min(std::max(start, minBitrate), maxBitrate)),
      minBitrate(minBitrate),
      maxBitrate(maxBitrate)
{
}

std::optional<int> BitrateController::update(int drops, double rttMs)
{
    const auto queueing = queueingDelay(rttMs);
    const bool isCalm = drops < 1 && queueing && *queueing < calmDelay;
    if (isCalm) return countCalm();
    calmSeconds = 0;
    const bool isCongested = drops >= 1 || (queueing && *queueing > congestionDelay);
    if (!isCongested) return std::nullopt;
    return moveTo(decreaseFactor * bitrate);
}

// The round trip above the baseline, which takes the report in first.
std::optional<double> BitrateController::queueingDelay(double rttMs)
{
    if (!std::isfinite(rttMs) || rttMs < 0) return std::nullopt;
    if (!baselineRTT || rttMs < *baselineRTT)
        baselineRTT = rttMs;
    else
        *baselineRTT += (rttMs - *baselineRTT) * baselineCreep;
    return rttMs - *baselineRTT;
}

std::optional<int> BitrateController::countCalm()
{
    if (++calmSeconds < calmSecondsToIncrease) return std::nullopt;
    calmSeconds = 0;
    return moveTo(increaseFactor * bitrate);
}

std::optional<int> BitrateController::moveTo(double target)
{
    const double bounded = std::max<double>(std::min<double>(std::round(target), maxBitrate), minBitrate);
    const int previous = std::exchange(bitrate, static_cast<int>(bounded));
    if (bitrate == previous) return std::nullopt;
    return bitrate;
}

} // namespace pelorin
