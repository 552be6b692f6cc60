#pragma once

#include <cstdint>
#include <optional>

namespace pelorin {

// Tells single, double and triple clicks apart. Saturates at three, so that tapping on keeps a triple click.
class ClickCounter {
public:
    // The longest gap in seconds and the largest distance in points between clicks of one series, inclusive.
    ClickCounter(double maxInterval, double maxDistance) : maxInterval(maxInterval), maxDistance(maxDistance)
    {
    }

    // Takes a press at a time in seconds; returns its click count, 1 to 3.
    std::uint8_t registerClick(double time, double x, double y);

private:
    bool continuesSeries(double time, double x, double y) const;

    double maxInterval;
    double maxDistance;
    std::optional<double> lastTime;
    double lastX = 0;
    double lastY = 0;
    std::uint8_t count = 0;
};

} // namespace pelorin
