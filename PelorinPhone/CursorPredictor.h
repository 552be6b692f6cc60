#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <deque>
#include <optional>

namespace pelorin {

// Where to draw the pointer: where the host last saw it, and from there on by the moves that this did not
// hold yet, so that the pointer follows the hand and not the network. What the host says differently, since
// the desktop moved its pointer itself, is glided to. A value, one for a session; points of the streamed
// display.
class CursorPredictor {
public:
    struct Place {
        double x = 0;
        double y = 0;
        bool operator==(const Place&) const = default;
    };

    void displayIs(double width, double height); // where the host keeps the pointer
    void moved(double dx, double dy); // was sent; every one, in order
    void reported(const message::CursorPosition& position, SteadyTime now);

    double displayWidth() const { return width; } // 0: not known yet
    double displayHeight() const { return height; }
    std::optional<Place> at(SteadyTime now) const; // nothing before the first report
    bool isGliding(SteadyTime now) const; // looks different a moment later, without anything else happening

private:
    Place predicted() const;
    Place confined(Place place) const;

    struct Move {
        double dx;
        double dy;
    };
    std::optional<Place> lastReported;
    std::deque<Move> unacknowledged; // oldest first
    std::uint32_t appliedMoves = 0; // of all sent; those that follow are unacknowledged
    double width = 0;
    double height = 0;
    Move glide{0, 0}; // from the prediction to where it was drawn, when that changed at glidesSince
    SteadyTime glidesSince;
};

} // namespace pelorin
