#pragma once

#include "PelorinHost/Screen/ScreenStreamer.h"
#include "PelorinHost/Session/SessionEnd.h"

namespace pelorin {

// Keeps one screen stream running: starts it, starts it anew when the capture stops by itself, and gives up
// at the third stop. Queue: the session's, where its callbacks arrive too; they may destroy it. Owns the
// streamer. Owned by the HostSession.
class StreamKeeper {
public:
    // settingsNow is asked at every start, since display, scale and bitrate move on meanwhile.
    StreamKeeper(DisplayCapture& capture, Compression& compression, QueueRef queue, QueueRef captureQueue,
        std::function<ScreenStreamer::Settings()> settingsNow);
    ~StreamKeeper();

    std::function<void(VideoCodec, std::vector<Bytes> parameterSets)> onFormat;
    std::function<void(EncodedFrame)> onFrame;
    std::function<void(message::DisplayInfo)> onDisplayInfo;
    std::function<void(SessionEnd)> onGivenUp; // at most once

    void start(); // also in place of the stream that runs
    bool isStarted() const { return streamer != nullptr; }

    // For the stream that runs; before the first start there is nothing to tell, as it asks for the settings.
    void update(Viewport viewport);
    void update(double scale);
    void setBitrate(int bitsPerSecond);
    void requestKeyframe();
    void repeatLastFrame();

private:
    void startFinished(Result<void, ScreenStreamerError> result);
    void streamFailed(std::string reason);
    void giveUp(SessionEnd how);
    // A callback for the capture queue that reports on ours, unless another stream has taken over meanwhile.
    template <class Report>
    auto reporting(Report report);

    DisplayCapture& capture;
    Compression& compression;
    QueueRef queue;
    QueueRef captureQueue;
    std::function<ScreenStreamer::Settings()> settingsNow;
    Log log{"session"};
    std::unique_ptr<ScreenStreamer> streamer;
    int streamGeneration = 0; // raised by every start; reports of an older one are stale
    int streamRestarts = 0;
    Subscription pendingRestart;
    Lifetime lifetime;
};

} // namespace pelorin
