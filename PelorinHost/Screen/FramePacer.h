#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <algorithm>

namespace pelorin {

// Says when the next picture may be taken: at once after a quiet spell, and no more than maxFrameRate a
// second in the long run. A picture may come up to half an interval early, at the cost of the next ones, so
// that an application drawing at that very rate, never quite evenly, gets each of its pictures through.
class FramePacer {
public:
    explicit FramePacer(int maxFrameRate)
        : interval(std::chrono::duration_cast<Duration>(std::chrono::seconds(1)) / maxFrameRate)
    {
    }

    SteadyTime nextPicture() const { return due - interval / 2; }
    void taken(SteadyTime now) { due = std::max(due, now) + interval; }

private:
    Duration interval;
    SteadyTime due; // of the next picture, were all evenly spaced
};

} // namespace pelorin
