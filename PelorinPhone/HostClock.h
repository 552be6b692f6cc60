#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <cstdint>
#include <deque>
#include <optional>

namespace pelorin {

// Tells what our clock showed when the host's steady clock showed a given time, from nothing but the traffic:
// the quickest recent frame is taken to have travelled for half of the quickest recent round trip. On a path
// that is as fast there as back the error is what even the quickest frame had to wait. A value; times come in
// as arguments. Host times are whatever a peer claims and may be nonsense; the result is then nonsense too.
class HostClock {
public:
    // Frames and round trips older than this say nothing any more: clocks drift by some 50 ppm, and paths
    // change.
    static constexpr Duration window = std::chrono::seconds(10);

    // A frame that left the host when its clock showed hostSentMicros has arrived whole.
    void addFrame(SteadyTime arrivedAt, std::uint64_t hostSentMicros);
    void addRoundTrip(SteadyTime endedAt, Duration roundTrip);

    // From the host's moment to ours, in milliseconds; nothing before a frame and a round trip are known.
    std::optional<double> millisecondsBetween(std::uint64_t hostMicros, SteadyTime at) const;

private:
    // The least of the values that came within the window, or the last one when none did.
    class RecentMinimum {
    public:
        void add(SteadyTime at, std::int64_t value);
        std::optional<std::int64_t> value() const;

    private:
        struct Entry {
            SteadyTime at;
            std::int64_t value;
        };
        std::deque<Entry> rising; // each entry is less than all that came before it and are gone
    };

    RecentMinimum arrivalMinusSentMicros;
    RecentMinimum roundTripMicros;
};

} // namespace pelorin
