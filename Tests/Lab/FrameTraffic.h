#pragma once

#include "PelorinNet/Channel/Channel.h"

#include <vector>

namespace pelorin::lab {

// Both directions of a stream that is used as a session uses it: frames of one size go out at a steady pace,
// unless too many wait, and those that come in tell when they were sent. Both ends share a clock. Queue: the
// one given. Owns the channel.
class FrameTraffic {
public:
    struct Settings {
        std::size_t frameBytes = 1000;
        Duration interval = std::chrono::microseconds(16'667);
        std::size_t mostUnsent = 200'000; // bytes that may wait before frames are left out
    };
    FrameTraffic(std::unique_ptr<Channel> newChannel, QueueRef newQueue, const Settings& newSettings);

    std::function<void(std::optional<NetError>)> onClosed;

    struct Figures {
        std::uint64_t sent = 0;
        std::uint64_t leftOut = 0;
        std::uint64_t received = 0;
        Duration longestGap{}; // between two that came, or since the last one
        Duration latency{}; // the median of the last second
        Duration latencyP95{};
        bool isBroken = false; // a frame was not what was sent
    };
    Figures figures() const;
    void restartGap() { longestGap = {}; }

private:
    void sendFrame();
    void receive(ByteView bytes);
    void frameArrived();

    const QueueRef queue;
    const Settings settings;
    const std::unique_ptr<Channel> channel;
    Figures count;
    Bytes partial; // of the frame that is coming in
    std::optional<SteadyTime> lastArrival;
    Duration longestGap{};
    std::vector<Duration> latencies; // of the last frames, a ring
    Subscription pace;
};

} // namespace pelorin::lab
