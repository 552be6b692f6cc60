#include "PelorinHost/Session/VideoGate.h"

namespace pelorin {
namespace {

constexpr int maxPendingVideoSends = 2; // one on its way, one behind it; more would only be latency

} // namespace

VideoGate::Verdict VideoGate::admit(bool isKeyframe)
{
    // A keyframe goes even past the limit, since the phone waits for it.
    if (isKeyframe) {
        keyframeUnderway = false;
        awaitingKeyframe = false;
        owesKeyframe = false;
        ++pendingVideoSends;
        return Verdict::send;
    }
    if (awaitingKeyframe) return Verdict::drop;
    if (pendingVideoSends < maxPendingVideoSends) {
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
