#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Whether the phone is still there and its user still at work, judged once a second.
class Liveness {
public:
    enum class Verdict { alive, silent, idle };

    // idleLimitSeconds without input end the session; 0 or less never does.
    Liveness(SteadyTime now, double idleLimitSeconds);

    void heard(SteadyTime now) { lastHeardFrom = now; }
    void sawInput(SteadyTime now) { lastInputAt = now; }
    Verdict tick(SteadyTime now);

    double idleLimitSeconds;

private:
    SteadyTime lastHeardFrom;
    SteadyTime lastInputAt;
    SteadyTime lastStatsTick;
};

} // namespace pelorin
