#include "PelorinCore/Pointer/MomentumScroller.h"

#include <cmath>

namespace pelorin {

// Asked as "not fast enough" so that a velocity of NaN has stopped too.
bool MomentumScroller::isStopped() const
{
    return !(std::hypot(velocityX, velocityY) >= minimumVelocity);
}

MomentumScroller::Step MomentumScroller::step(double dt)
{
    if (isStopped()) return {};
    const double decay = std::pow(decelerationPerMs, dt * 1000);
    velocityX *= decay;
    velocityY *= decay;
    if (isStopped()) return {};
    return {velocityX * dt, velocityY * dt, false};
}

} // namespace pelorin
