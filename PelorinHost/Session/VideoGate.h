#pragma once

namespace pelorin {

// Lets encoded frames through to the transport: every keyframe, and of the rest two in flight and none before
// the keyframe it would need. What a slow phone costs is dropped frames. Also holds requests for keyframes
// together, so that no phone can have them made faster than they are encoded and sent.
class VideoGate {
public:
    enum class Verdict { send, drop, dropAndRequestKeyframe };
    Verdict admit(bool isKeyframe);

    // Each answers whether a keyframe is to be requested now.
    [[nodiscard]] bool sent(); // a frame that was let through has left
    [[nodiscard]] bool keyframeWanted(); // the phone asks
    [[nodiscard]] bool tick(); // once a second, in case a requested keyframe never came

    int pendingVideoSends = 0; // handed to the transport, not yet confirmed
    bool awaitingKeyframe = false; // frames are skipped until the next keyframe

private:
    bool request();

    bool keyframeUnderway = false; // requested, not yet seen
    bool owesKeyframe = false; // to be requested once there is room
};

} // namespace pelorin
