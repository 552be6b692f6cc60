#include "PelorinHost/Session/StillRefinement.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto restBefore = 150ms; // a screen that pauses shorter is still in motion
constexpr auto repeatDistance = 40ms; // leaves the encoder free for what may happen next
constexpr int maxRepeats = 50; // two seconds; the rest of the gain would not be seen

// A frame that changes nothing takes some 70 bytes. One alone says little: after a few large ones the encoder
// saves for the next.
constexpr std::size_t emptyFrameBytes = 512;
constexpr int emptyRepeatsAtEnd = 4;

} // namespace

std::optional<Duration> StillRefinement::sent(std::size_t bytes)
{
    if (!std::exchange(isRepeatComing, false)) {
        repeatsLeft = maxRepeats;
        emptyRepeats = 0;
        return restBefore;
    }
    emptyRepeats = bytes < emptyFrameBytes ? emptyRepeats + 1 : 0;
    if (--repeatsLeft <= 0 || emptyRepeats == emptyRepeatsAtEnd) return std::nullopt;
    return repeatDistance;
}

} // namespace pelorin
