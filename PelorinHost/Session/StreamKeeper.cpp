#include "PelorinHost/Session/StreamKeeper.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr int maxStreamRestarts = 2; // in a session; a capture that keeps stopping won't get better

// A display server that goes down hangs up on its clients one after another: asked at once, it still lists a
// display that can't be captured any more.
constexpr auto restartPause = 200ms;

} // namespace

StreamKeeper::StreamKeeper(DisplayCapture& newCapture, Compression& newCompression, QueueRef newQueue,
    QueueRef newCaptureQueue, std::function<ScreenStreamer::Settings()> newSettingsNow)
    : capture(newCapture),
      compression(newCompression),
      queue(std::move(newQueue)),
      captureQueue(std::move(newCaptureQueue)),
      settingsNow(std::move(newSettingsNow))
{
}

StreamKeeper::~StreamKeeper() = default;

template <class Report>
auto StreamKeeper::reporting(Report report)
{
    return
        [this, report, generation = streamGeneration, queue = queue, alive = lifetime.watch()](auto... args) {
            // Capture thread: only captured values are used here; our own state waits for our queue.
            queue->post([this, report, generation, alive, ... args = std::move(args)]() mutable {
                if (alive && generation == streamGeneration) report(std::move(args)...);
            });
        };
}

void StreamKeeper::start()
{
    queue->assertCurrent();
    pendingRestart.cancel();
    ++streamGeneration;
    streamer.reset(); // two captures of one display would only slow each other down
    streamer = std::make_unique<ScreenStreamer>(capture, compression, captureQueue, settingsNow());
    streamer->onFormat = reporting([this](VideoCodec codec, auto sets) { onFormat(codec, std::move(sets)); });
    streamer->onFrame = reporting([this](EncodedFrame frame) { onFrame(std::move(frame)); });
    streamer->onDisplayInfo = reporting([this](message::DisplayInfo info) { onDisplayInfo(info); });
    streamer->onError = reporting([this](std::string reason) { streamFailed(std::move(reason)); });
    streamer->start(
        reporting([this](Result<void, ScreenStreamerError> result) { startFinished(std::move(result)); }));
}

void StreamKeeper::update(Viewport viewport)
{
    if (streamer) streamer->update(viewport);
}

void StreamKeeper::update(double scale)
{
    if (streamer) streamer->update(scale);
}

void StreamKeeper::setBitrate(int bitsPerSecond)
{
    if (streamer) streamer->setBitrate(bitsPerSecond);
}

void StreamKeeper::requestKeyframe()
{
    if (streamer) streamer->requestKeyframe();
}

void StreamKeeper::repeatLastFrame()
{
    if (streamer) streamer->repeatLastFrame();
}

void StreamKeeper::startFinished(Result<void, ScreenStreamerError> result)
{
    if (result) return;
    log.error("capture did not start: {}", result.error().description);
    giveUp(SessionEnd::captureNotStarted());
}

void StreamKeeper::streamFailed(std::string reason)
{
    if (streamRestarts == maxStreamRestarts) {
        log.error("capture stopped ({}); giving up", reason);
        return giveUp(SessionEnd::captureStopped());
    }
    ++streamRestarts;
    log.warning("capture stopped ({}); restarting", reason);
    ++streamGeneration; // whatever the stopped one still says
    streamer->stop();
    pendingRestart = queue->after(restartPause, [this] { start(); });
}

void StreamKeeper::giveUp(SessionEnd how)
{
    const auto report = std::move(onGivenUp); // outlives us, should the report be our end
    report(std::move(how));
}

} // namespace pelorin
