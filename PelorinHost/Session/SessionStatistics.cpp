#include "PelorinHost/Session/SessionStatistics.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <utility>

namespace pelorin {
namespace {

std::uint32_t micros(SteadyTime from, SteadyTime to)
{
    const auto count = std::chrono::duration_cast<std::chrono::microseconds>(to - from).count();
    return static_cast<std::uint32_t>(
        std::clamp<std::int64_t>(count, 0, std::numeric_limits<std::uint32_t>::max()));
}

void add(SessionFigures::Stages& sums, const FrameStamps& stamps)
{
    sums.captureMs += stamps.captureMicros / 1000.0;
    sums.convertMs += stamps.convertMicros / 1000.0;
    sums.encodeMs += stamps.encodeMicros / 1000.0;
    sums.sendMs += stamps.sendMicros / 1000.0;
}

SessionFigures::Stages mean(const SessionFigures::Stages& sums, int count)
{
    return {sums.captureMs / count, sums.convertMs / count, sums.encodeMs / count, sums.sendMs / count};
}

} // namespace

FrameStamps stampsOf(const EncodedFrame& frame, SteadyTime handedOver)
{
    // A picture that is encoded again was captured long ago: its stages begin with the frame itself.
    const SteadyTime shown{std::chrono::microseconds(frame.ptsMicros)};
    const SteadyTime grabbed = std::max(shown, frame.captureTimes.grabbed);
    const SteadyTime converted = std::max(grabbed, frame.captureTimes.converted);
    return {micros(shown, grabbed), micros(grabbed, converted), micros(converted, frame.encodedAt),
        micros(frame.encodedAt, handedOver)};
}

std::string SessionFigures::line() const
{
    return fmt::format(
        "{} · {} fps · {:.1f}/{:.1f} Mbps · 丢帧 {}", displayLabel, fps, mbps, targetMbps, framesDropped);
}

void SessionStatistics::sent(std::size_t bytes, const FrameStamps& stamps)
{
    ++framesSent;
    bytesSent += bytes;
    add(stageSums, stamps);
}

void SessionStatistics::tick(SteadyTime now, SessionFigures& figures)
{
    const std::chrono::duration<double> span = now - std::exchange(lastStatsTick, now);
    if (span.count() > 0) {
        figures.fps = static_cast<int>(std::lround(framesSent / span.count()));
        figures.mbps = static_cast<double>(bytesSent) * 8 / 1e6 / span.count();
    }
    figures.framesDropped = framesDropped;
    figures.drops += framesDropped;
    figures.seconds = std::chrono::duration<double>(now - startedAt).count();
    if (framesSent > 0) figures.stages = mean(stageSums, framesSent);
    framesSent = 0;
    framesDropped = 0;
    bytesSent = 0;
    stageSums = {};
}

} // namespace pelorin
