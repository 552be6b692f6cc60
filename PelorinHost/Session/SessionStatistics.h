#pragma once

#include "PelorinCore/Wire/FrameStamps.h"
#include "PelorinHost/Screen/VideoEncoder.h"

#include <string>

namespace pelorin {

// Where the frame's time went, from the change of the screen until it was handed to the transport.
FrameStamps stampsOf(const EncodedFrame& frame, SteadyTime handedOver);

// A running session as people and programs see it; anew every second.
struct SessionFigures {
    std::string peer;
    std::string clientName;
    std::string path;
    std::string displayLabel;
    int fps = 0;
    double mbps = 0;
    double targetMbps = 0;
    int framesDropped = 0; // in the last second
    std::int64_t drops = 0; // since the session began
    double seconds = 0; // since the session began
    struct Stages {
        double captureMs = 0;
        double convertMs = 0;
        double encodeMs = 0;
        double sendMs = 0;
    } stages; // means over the latest second that had frames

    // "label · 60 fps · 8.3/12.0 Mbps · 丢帧 0"
    std::string line() const;
};

// Counts what was sent and dropped since the last tick.
class SessionStatistics {
public:
    explicit SessionStatistics(SteadyTime now) : startedAt(now), lastStatsTick(now) {}

    void sent(std::size_t bytes, const FrameStamps& stamps);
    void dropped() { ++framesDropped; }

    // Writes what is counted here into figures, and begins the next second.
    void tick(SteadyTime now, SessionFigures& figures);

private:
    int framesSent = 0;
    int framesDropped = 0;
    std::size_t bytesSent = 0;
    SessionFigures::Stages stageSums;
    SteadyTime startedAt;
    SteadyTime lastStatsTick;
};

} // namespace pelorin
