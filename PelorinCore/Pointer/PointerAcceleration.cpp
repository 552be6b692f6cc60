#include "PelorinCore/Pointer/PointerAcceleration.h"

#include <algorithm>
#include <cmath>

namespace pelorin {

namespace {

// Samples that arrive in a burst, with hardly any time between them, must not look infinitely fast.
constexpr double shortestInterval = 1.0 / 240; // seconds
constexpr double slowVelocity = 100; // points per second: no acceleration up to here
constexpr double rampWidth = 1400; // and all of it this much above

// Has no kink at either end of the ramp.
double smoothstep(double t)
{
    return t * t * (3 - 2 * t);
}

} // namespace

PointerAcceleration::Motion PointerAcceleration::apply(double dx, double dy, double dt) const
{
    const double speed = std::hypot(dx, dy);
    if (!(speed > 0)) return {};
    const double velocity = speed / (dt > shortestInterval ? dt : shortestInterval);
    const double ramp = smoothstep(std::clamp((velocity - slowVelocity) / rampWidth, 0.0, 1.0));
    const double gain = sensitivity * (1 + 2 * acceleration * ramp);
    return {dx * gain, dy * gain};
}

} // namespace pelorin
