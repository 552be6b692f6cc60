#pragma once

#include "PelorinPhone/VideoReceiver.h"

namespace pelorin {

struct MotionFigures {
    double distinctFps = 0; // pictures with a new frame number, per second
    int torn = 0; // pictures that show parts of two frames
};

// Counts what arrives of a moving desktop whose frames bear a FrameMark. Queue: the session's. Owned by the
// Viewer.
class MotionMeasurement {
public:
    MotionMeasurement(QueueRef queue, Duration length);

    std::function<void()> onBegin; // the settling is over, counting begins
    std::function<void(MotionFigures)> onEnd; // once; may destroy us

    void start();
    void sawPicture(const DecodedPicture& picture);

private:
    void begin();
    void end();

    QueueRef queue;
    Duration length;
    bool isCounting = false;
    int distinct = 0;
    int torn = 0;
    std::optional<std::uint32_t> lastNumber;
    Subscription timer;
};

} // namespace pelorin
