#include "PelorinHost/Session/VideoGate.h"

namespace pelorin {
namespace {

constexpr int maxPendingVideoSends = 2; // one on its way, one behind it; more would only be latency

// A keyframe goes even past the limit, since the phone waits for it. A phone that takes nothing at all must
// not pile them up, though: from here on the next one waits for room.
constexpr int maxPendingWithKeyframes = 4;

} // namespace

VideoGate::Verdict VideoGate::admit(bool isKeyframe)
{
    if (isKeyframe) keyframeUnderway = false;
    if (isKeyframe && pendingVideoSends < maxPendingWithKeyframes) {
        awaitingKeyframe = false;
        owesKeyframe = false;
        ++pendingVideoSends;
        return Verdict::send;
    }
    if (!isKeyframe && awaitingKeyframe) return Verdict::drop;
    if (!isKeyframe && pendingVideoSends < maxPendingVideoSends) {
        ++pendingVideoSends;
        return Verdict::send;
    }
    awaitingKeyframe = true;
    return request() ? Verdict::dropAndRequestKeyframe : Verdict::drop;
}

bool VideoGate::sent()
{
    --pendingVideoSends;
    return owesKeyframe && pendingVideoSends < maxPendingVideoSends && request();
}

bool VideoGate::keyframeWanted()
{
    return request();
}

bool VideoGate::tick()
{
    keyframeUnderway = false;
    return awaitingKeyframe && request();
}

// With more than the usual two in flight a keyframe is among them; one made now would be old when its turn
// comes, so it is owed until there is room.
bool VideoGate::request()
{
    if (keyframeUnderway) return false;
    owesKeyframe = pendingVideoSends > maxPendingVideoSends;
    keyframeUnderway = !owesKeyframe;
    return keyframeUnderway;
}

} // namespace pelorin
