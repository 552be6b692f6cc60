#include "PelorinNet/Path/PathLink.h"

#include <algorithm>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr int missesToFall = 3;
constexpr int answersAfterFall = 3; // a way that comes and goes must not be chosen at each coming

constexpr Duration shortestPatience = 150ms; // a busy machine answers late
constexpr Duration firstPatience = 1s; // before the round trip is known
constexpr Duration longestPatience = 3s; // a path this slow serves nobody
constexpr Duration urgently = 50ms;

} // namespace

PathLink::PathLink(
    DatagramProxy::Path newWay, SocketAddress newRemote, Kind newKind, std::string newLabel, SteadyTime now)
    : path(newWay),
      peer(newRemote),
      relays(newKind),
      text(std::move(newLabel)),
      stateSince(now)
{
}

bool PathLink::isProven() const
{
    return isStanding() && missed == 0 && (!hasFallen || answers >= answersAfterFall);
}

Duration PathLink::patience() const
{
    if (!smoothedRtt) return firstPatience;
    return std::clamp(2 * *smoothedRtt, shortestPatience, longestPatience);
}

Duration PathLink::interval(SteadyTime now, bool isChosen) const
{
    if (isSuspect) return urgently;
    const Duration age = now - stateSince;
    switch (state) {
    case State::unproven: // the peer's end may open at any moment; after that it hardly ever will
        return age < 2s ? urgently : age < 10s ? Duration(500ms) : Duration(5s);
    case State::standing:
        if (missed > 0 || (hasFallen && answers < answersAfterFall)) return urgently;
        return isChosen ? 2s : 5s; // within the 30 s for which the strictest NATs keep a mapping
    case State::fallen: // most holes in a network are short
        return age < 15s ? Duration(200ms) : age < 60s ? Duration(1s) : Duration(5s);
    }
    return 5s;
}

bool PathLink::isCheckDue(SteadyTime now, bool isChosen) const
{
    return !lastCheck || now - *lastCheck >= interval(now, isChosen);
}

void PathLink::checkSent(const TransactionID& id, SteadyTime now)
{
    // Each has to stay until it counts as missed; answers that come much later tell nothing.
    while (!checks.empty() && now - checks.front().sentAt > longestPatience + urgently) checks.pop_front();
    checks.push_back({id, now});
    lastCheck = now;
}

bool PathLink::isAwaiting(const TransactionID& id) const
{
    return std::ranges::find(checks, id, &Check::id) != checks.end();
}

void PathLink::answered(const TransactionID& id, SteadyTime now)
{
    const auto check = std::ranges::find(checks, id, &Check::id);
    if (check == checks.end()) return;
    const Duration sample = now - check->sentAt;
    smoothedRtt = smoothedRtt ? *smoothedRtt + (sample - *smoothedRtt) / 4 : sample;
    // Older checks went the same way and may be lost; they tell nothing about now.
    checks.erase(checks.begin(), check + 1);
    stand(now);
}

void PathLink::proved(SteadyTime now)
{
    stand(now);
}

void PathLink::stand(SteadyTime now)
{
    if (state != State::standing) {
        state = State::standing;
        stateSince = now;
    }
    answeredAt = now;
    missed = 0;
    isSuspect = false;
    ++answers;
}

bool PathLink::expireChecks(SteadyTime now)
{
    for (Check& check : checks) {
        if (check.isMissed || now - check.sentAt < patience()) continue;
        check.isMissed = true;
        answers = 0;
        ++missed;
    }
    return missed >= missesToFall && fall(now);
}

void PathLink::suspect(SteadyTime now)
{
    if (isSuspect) return;
    isSuspect = true;
    // Suspicion that returns while a check is under way must not send one more each time.
    if (lastCheck && now - *lastCheck >= urgently) lastCheck.reset();
}

bool PathLink::fall(SteadyTime now)
{
    isSuspect = false;
    if (state != State::standing) return false;
    state = State::fallen;
    stateSince = now;
    hasFallen = true;
    answers = 0;
    return true;
}

} // namespace pelorin
