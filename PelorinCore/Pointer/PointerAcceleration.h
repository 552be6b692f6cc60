#pragma once

namespace pelorin {

// The gain from finger motion to pointer motion: slow motion stays exact, quick motion reaches far.
struct PointerAcceleration {
    double sensitivity; // gain at every speed
    double acceleration; // extra gain at high speed; 0 is a linear response

    struct Motion {
        double dx = 0;
        double dy = 0;
        bool operator==(const Motion&) const = default;
    };
    // dx and dy in points, dt in seconds since the motion sample before.
    Motion apply(double dx, double dy, double dt) const;

    bool operator==(const PointerAcceleration&) const = default;
};

} // namespace pelorin
