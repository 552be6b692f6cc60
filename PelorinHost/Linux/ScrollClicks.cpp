#include "PelorinHost/Linux/ScrollClicks.h"

#include <algorithm>

namespace pelorin {
namespace {

// Toolkits and browsers move their content by three lines, 45 to 60 pixels, for a click; so the content keeps
// up with the finger.
constexpr int pixelsPerClick = 48;
constexpr int maxClicks = 50; // of one report, two screens: more is no finger's doing

int takeClicks(int& gathered, int pixels)
{
    constexpr int limit = pixelsPerClick * maxClicks;
    gathered += std::clamp(pixels, -limit, limit);
    const int clicks = gathered / pixelsPerClick;
    gathered %= pixelsPerClick;
    return std::clamp(clicks, -maxClicks, maxClicks);
}

} // namespace

ScrollClicks::Clicks ScrollClicks::add(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum)
{
    const Clicks clicks{.left = takeClicks(leftPx, wholeX), .up = takeClicks(upPx, wholeY)};
    if (phase == ScrollPhase::ended || phase == ScrollPhase::cancelled || momentum == MomentumPhase::ended)
        leftPx = upPx = 0;
    return clicks;
}

} // namespace pelorin
