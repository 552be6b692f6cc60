#include "PelorinCore/Pointer/ClickCounter.h"

#include <algorithm>
#include <cmath>

namespace pelorin {

std::uint8_t ClickCounter::registerClick(double time, double x, double y)
{
    count = continuesSeries(time, x, y) ? static_cast<std::uint8_t>(std::min(count + 1, 3)) : 1;
    lastTime = time;
    lastX = x;
    lastY = y;
    return count;
}

bool ClickCounter::continuesSeries(double time, double x, double y) const
{
    return lastTime && time - *lastTime <= maxInterval && std::hypot(x - lastX, y - lastY) <= maxDistance;
}

} // namespace pelorin
