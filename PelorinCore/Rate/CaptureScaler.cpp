#include "PelorinCore/Rate/CaptureScaler.h"

#include <algorithm>
#include <array>

namespace pelorin {

namespace {

constexpr std::array steps{1.0, 0.75, 0.5};

int counted(int seconds, bool isOn)
{
    return isOn ? seconds + 1 : 0;
}

} // namespace

std::optional<double> CaptureScaler::update(int bitrate, std::int64_t fullPixels)
{
    const auto step = std::find(steps.begin(), steps.end(), scale);
    if (fullPixels < 1 || step == steps.end()) return std::nullopt;
    const bool isSmallest = step == steps.end() - 1;
    const bool isLargest = step == steps.begin();
    const bool isStarved = !isSmallest && bitsPerPixel(scale, bitrate, fullPixels) < lowBitsPerPixel;
    const bool hasRoom = !isLargest && bitsPerPixel(*(step - 1), bitrate, fullPixels) > highBitsPerPixel;
    lowSeconds = counted(lowSeconds, isStarved);
    highSeconds = counted(highSeconds, hasRoom);
    if (!isSmallest && lowSeconds >= secondsToStepDown) return stepTo(*(step + 1));
    if (!isLargest && highSeconds >= secondsToStepUp) return stepTo(*(step - 1));
    return std::nullopt;
}

double CaptureScaler::bitsPerPixel(double atScale, int bitrate, std::int64_t fullPixels) const
{
    return bitrate / (atScale * (atScale * static_cast<double>(fullPixels)) * frameRate);
}

std::optional<double> CaptureScaler::stepTo(double newScale)
{
    lowSeconds = 0;
    highSeconds = 0;
    scale = newScale;
    return scale;
}

} // namespace pelorin
