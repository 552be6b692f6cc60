#pragma once

#include "PelorinCore/Wire/Message.h"

namespace pelorin {

// Turns pixel scrolling into the whole wheel clicks that XTEST knows. A gesture's unfinished click ends with
// it.
class ScrollClicks {
public:
    struct Clicks {
        int left = 0; // negative: right
        int up = 0; // negative: down
        bool operator==(const Clicks&) const = default;
    };
    // Pixels as in EventPosting: positive y is up, positive x is left.
    Clicks add(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum);

private:
    int leftPx = 0; // gathered towards the next click, less than one
    int upPx = 0;
};

} // namespace pelorin
