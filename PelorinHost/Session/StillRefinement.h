#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <optional>

namespace pelorin {

// A picture that was moving is coarse when it comes to rest, and no change of the screen would ever sharpen
// it: so it is encoded again a number of times, each spending what the bitrate allows, until there is nothing
// left to add. Then a still screen sends nothing more.
class StillRefinement {
public:
    // A frame of that size went out. Returns after what time, if nothing else goes out, to ask for a repeat.
    std::optional<Duration> sent(std::size_t bytes);
    void repeatAsked() { isRepeatComing = true; }

private:
    bool isRepeatComing = false;
    int repeatsLeft = 0;
    int emptyRepeats = 0; // in a row
};

} // namespace pelorin
