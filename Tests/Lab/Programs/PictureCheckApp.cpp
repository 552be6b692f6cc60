// pelorin-picture-check SCREENSHOT.png: compares a viewer's screenshot with what $DISPLAY shows now and
// prints both shares as JSON. Exits 0 only when nearly all of the picture is the same and the screen isn't
// blank.

#include "Tests/Lab/Picture.h"

#include <cstdio>

namespace {

// The rest is for what moves while the two pictures are taken one after the other.
constexpr double leastEqual = 0.9;
// A window with a few lines of text on an empty desktop has about this many blocks with something in them.
constexpr double leastLively = 0.01;

} // namespace

int main(int count, char** arguments)
{
    using namespace pelorin::lab;
    if (count != 2) return std::fprintf(stderr, "usage: %s SCREENSHOT.png\n", arguments[0]), 2;
    const auto shown = Picture::ofPNG(arguments[1]);
    const auto screen = Picture::ofScreen("");
    if (shown.isEmpty() || screen.isEmpty()) return std::fprintf(stderr, "no picture to compare\n"), 2;

    const double equal = shareOfEqualBlocks(screen.scaledTo(shown.widthPx, shown.heightPx), shown);
    const double lively = shareOfLivelyBlocks(shown);
    std::printf("{\"equalBlocks\": %.4f, \"livelyBlocks\": %.4f}\n", equal, lively);
    return equal >= leastEqual && lively >= leastLively ? 0 : 1;
}
