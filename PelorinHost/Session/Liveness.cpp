#include "PelorinHost/Session/Liveness.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto heartbeatTimeout = 5s; // the phone pings more often than that
constexpr auto hostStall = 2500ms; // between two ticks: we slept ourselves and heard nobody meanwhile

} // namespace

Liveness::Liveness(SteadyTime now, double newIdleLimit)
    : idleLimitSeconds(newIdleLimit),
      lastHeardFrom(now),
      lastInputAt(now),
      lastStatsTick(now)
{
}

Liveness::Verdict Liveness::tick(SteadyTime now)
{
    const auto gap = now - lastStatsTick;
    lastStatsTick = now;
    if (gap > hostStall)
        lastHeardFrom = now;
    else if (now - lastHeardFrom > heartbeatTimeout)
        return Verdict::silent;
    // In floating seconds, which take any limit a settings file may hold.
    const std::chrono::duration<double> idle = now - lastInputAt;
    if (idleLimitSeconds > 0 && idle.count() > idleLimitSeconds) return Verdict::idle;
    return Verdict::alive;
}

} // namespace pelorin
