#include "PelorinPhone/HostClock.h"

namespace pelorin {

namespace {

std::int64_t microsOf(Duration duration)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

// Unsigned, so that whatever a host claims wraps around instead of overflowing.
std::uint64_t microsOf(SteadyTime time)
{
    return static_cast<std::uint64_t>(microsOf(time.time_since_epoch()));
}

} // namespace

void HostClock::addFrame(SteadyTime arrivedAt, std::uint64_t hostSentMicros)
{
    arrivalMinusSentMicros.add(arrivedAt, static_cast<std::int64_t>(microsOf(arrivedAt) - hostSentMicros));
}

void HostClock::addRoundTrip(SteadyTime endedAt, Duration roundTrip)
{
    roundTripMicros.add(endedAt, microsOf(roundTrip));
}

std::optional<double> HostClock::millisecondsBetween(std::uint64_t hostMicros, SteadyTime at) const
{
    const auto leastTravel = arrivalMinusSentMicros.value();
    const auto leastRoundTrip = roundTripMicros.value();
    if (!leastTravel || !leastRoundTrip) return std::nullopt;
    const std::uint64_t offset
        = static_cast<std::uint64_t>(*leastTravel) - static_cast<std::uint64_t>(*leastRoundTrip / 2);
    return static_cast<double>(static_cast<std::int64_t>(microsOf(at) - hostMicros - offset)) / 1000;
}

void HostClock::RecentMinimum::add(SteadyTime at, std::int64_t value)
{
    while (!rising.empty() && rising.back().value >= value) rising.pop_back();
    rising.push_back({at, value});
    while (rising.front().at < at - window) rising.pop_front();
}

std::optional<std::int64_t> HostClock::RecentMinimum::value() const
{
    if (rising.empty()) return std::nullopt;
    return rising.front().value;
}

} // namespace pelorin
