#pragma once

#include "PelorinHost/Session/RateAdaptation.h"
#include "PelorinHost/Session/SessionOutlet.h"
#include "PelorinHost/Session/SessionStatistics.h"
#include "PelorinHost/Session/StillRefinement.h"
#include "PelorinHost/Session/VideoGate.h"

namespace pelorin {

// Turns encoded frames into messages, or drops them for a slow phone, and counts both. Queue: the session's.
// Owned by the HostSession.
class VideoSender {
public:
    VideoSender(SessionOutlet& outlet, SessionStatistics& statistics, RateAdaptation& rate, QueueRef queue,
        bool stampsFrames);

    // What the streamer is to be asked for.
    std::function<void()> onKeyframeWanted;
    std::function<void()> onRepeatWanted;

    void setFormat(VideoCodec codec, std::vector<Bytes> parameterSets); // goes out ahead of each keyframe
    void send(EncodedFrame frame);
    void keyframeWanted(); // by the phone
    void tick(); // once a second

private:
    void dropped();
    void transmit(EncodedFrame frame);
    void requestIf(bool isWanted);
    void repeatAfter(std::optional<Duration> rest);
    void repeat();

    SessionOutlet& outlet;
    SessionStatistics& statistics;
    RateAdaptation& rate;
    QueueRef queue;
    bool stampsFrames;
    VideoGate gate;
    StillRefinement refinement;
    Subscription nextRepeat;
    std::optional<message::VideoFormat> format;
    Lifetime lifetime;
};

} // namespace pelorin
