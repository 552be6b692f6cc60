#pragma once

namespace pelorin {

// Lets a flicked scroll run on with exponential decay. The decay is per millisecond, so the path does not
// depend on the frame rate it is stepped at.
struct MomentumScroller {
    double velocityX; // points per second
    double velocityY;
    double decelerationPerMs; // what is left of the velocity after a millisecond, just below 1
    double minimumVelocity; // points per second; slower is stopped

    bool isStopped() const;

    struct Step {
        double dx = 0;
        double dy = 0;
        bool isFinished = true;
        bool operator==(const Step&) const = default;
    };
    // Decays by dt seconds and returns the points to scroll.
    Step step(double dt);
};

} // namespace pelorin
