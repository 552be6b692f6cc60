#pragma once

#include "PelorinCore/Wire/FrameStamps.h"
#include "PelorinNet/Queue/SerialQueue.h"
#include "PelorinPhone/VideoDecoder.h"

namespace pelorin {

// A picture with all that is known of its way.
struct ReceivedPicture {
    DecodedPicture picture;
    bool isKeyframe = false;
    std::uint64_t ptsMicros = 0; // change on the screen, on the host's clock
    std::optional<FrameStamps> stamps;
    SteadyTime arrivedAt;
    SteadyTime decodedAt;
};

// Takes videoFormat and videoFrame messages and gives out pictures, decoding on a queue of its own so that
// input never waits behind it. Skips what can't be decoded and says when a keyframe is needed; at most
// maxWaiting frames wait for the decoder. Queue: the session's. Owns the decoder, which lives on the decode
// queue. Owned by the PhoneSession.
class VideoReceiver {
public:
    // A decoder that is half a second behind never catches up by decoding on.
    static constexpr int maxWaiting = 30;

    VideoReceiver(QueueRef queue, QueueRef decodeQueue);
    ~VideoReceiver();

    // On the session's queue; each may destroy us.
    std::function<void(ReceivedPicture)> onPicture;
    std::function<void()> onDrop; // one arrived frame will not be shown
    std::function<void()> onKeyframeNeeded; // with every frame skipped for want of one

    void setFormat(message::VideoFormat format);
    void receive(message::VideoFrame frame);

private:
    struct Decoding;
    struct Outcome;
    void finished(Outcome outcome);
    void drop();

    QueueRef queue;
    QueueRef decodeQueue;
    std::shared_ptr<Decoding> decoding; // touched and destroyed on the decode queue only
    VideoCodec codec = VideoCodec::h264;
    int waiting = 0; // frames handed to the decode queue, not yet back
    bool skipping = false; // a frame was given up, so nothing decodes until a keyframe
    Lifetime lifetime;
};

} // namespace pelorin
