#include "PelorinHost/Screen/ScreenStreamer.h"

#include "PelorinNet/Log.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <optional>
#include <utility>

namespace pelorin {
namespace {

// A display that was just made or just woke takes a while to be listed.
constexpr int mostLookups = 25;
constexpr auto lookupDistance = std::chrono::milliseconds(200);

// Below this a picture is of no use on any phone, whatever its aspect.
constexpr int leastWidthPx = 320;
constexpr int leastHeightPx = 200;

int evenSize(double pixels)
{
    return static_cast<int>(std::trunc(pixels)) & ~1;
}

CaptureSize sizeInPixels(const ShareableDisplay& display)
{
    if (display.modeWidthPx > 0 && display.modeHeightPx > 0)
        return {display.modeWidthPx, display.modeHeightPx};
    return {static_cast<int>(display.bounds.width * 2), static_cast<int>(display.bounds.height * 2)};
}

} // namespace

CaptureSize captureSize(int displayWidthPx, int displayHeightPx, const Viewport& viewport, double scale)
{
    double fit = 1;
    if (viewport.widthPx > 0 && viewport.heightPx > 0)
        fit = std::min(
            {1.0, double(viewport.widthPx) / displayWidthPx, double(viewport.heightPx) / displayHeightPx});
    return {std::max(leastWidthPx, evenSize(fit * displayWidthPx * scale)),
        std::max(leastHeightPx, evenSize(fit * displayHeightPx * scale))};
}

// Everything that lives on the capture queue, but for the encoder's rate and keyframe wish, which guard
// themselves, and for isStopped. Tasks hold it, so it outlives the streamer until the last of them is done.
struct ScreenStreamer::Run : std::enable_shared_from_this<Run> {
    Run(DisplayCapture& newCapture, Compression& compression, QueueRef newQueue, const Settings& newSettings)
        : capture(newCapture),
          queue(std::move(newQueue)),
          settings(newSettings),
          encoder(std::in_place, compression, settings.codecPreference, settings.startBitrate,
              settings.maxFrameRate)
    {
    }

    // Runs work on the capture queue, unless the run is stopped by then.
    template <class Work>
    void enqueue(Work work)
    {
        queue->post([self = shared_from_this(), work = std::move(work)]() mutable {
            if (!self->isStopped) work(*self);
        });
    }

    void forwardEncoder();
    void lookUp(int attempt);
    bool begin(const ShareableDisplay& found);
    void wireStream();
    CaptureConfiguration configurationNow() const;
    void applyConfiguration();
    void reportDisplay(const CaptureConfiguration& configuration) const;
    void takeSample(const CaptureSample& sample);
    void encodeAgain();
    void encodeStill();
    void encode(const PixelBuffer& picture, SteadyTime presentationTime);
    void finishStart(Result<void, ScreenStreamerError> result);
    void release();

    DisplayCapture& capture;
    const QueueRef queue;
    Settings settings; // viewport and scale as last updated
    std::function<void(VideoCodec, std::vector<Bytes>)> onFormat;
    std::function<void(EncodedFrame)> onFrame;
    std::function<void(message::DisplayInfo)> onDisplayInfo;
    std::function<void(std::string)> onError;
    std::function<void(Result<void, ScreenStreamerError>)> onStarted;

    std::atomic<bool> isStopped = false;
    std::optional<VideoEncoder> encoder; // until we are stopped
    ShareableDisplay display;
    std::unique_ptr<CaptureStream> stream;
    std::shared_ptr<const PixelBuffer> lastPicture;
    SteadyTime lastPresentationTime;
    Subscription nextLookup;
    Log log{"capture"};
};

ScreenStreamer::ScreenStreamer(
    DisplayCapture& capture, Compression& compression, QueueRef captureQueue, Settings settings)
    : run(std::make_shared<Run>(capture, compression, std::move(captureQueue), settings))
{
}

ScreenStreamer::~ScreenStreamer()
{
    stop();
}

void ScreenStreamer::start(std::function<void(Result<void, ScreenStreamerError>)> done)
{
    run->onFormat = onFormat;
    run->onFrame = onFrame;
    run->onDisplayInfo = onDisplayInfo;
    run->onError = onError;
    run->onStarted = std::move(done);
    run->enqueue([](Run& r) {
        r.forwardEncoder();
        r.lookUp(1);
    });
}

void ScreenStreamer::stop()
{
    if (run->isStopped.exchange(true)) return;
    run->queue->post([run = run] { run->release(); });
}

void ScreenStreamer::update(Viewport viewport)
{
    run->enqueue([viewport](Run& r) {
        if (r.settings.viewport == viewport) return;
        r.settings.viewport = viewport;
        r.applyConfiguration();
    });
}

void ScreenStreamer::update(double scale)
{
    run->enqueue([scale](Run& r) {
        if (r.settings.scale == scale) return;
        r.settings.scale = scale;
        r.applyConfiguration();
    });
}

void ScreenStreamer::rebuildConfiguration()
{
    run->enqueue([](Run& r) { r.applyConfiguration(); });
}

void ScreenStreamer::setBitrate(int bitsPerSecond)
{
    if (!run->isStopped) run->encoder->setBitrate(bitsPerSecond);
}

void ScreenStreamer::requestKeyframe()
{
    if (run->isStopped) return;
    run->encoder->setForceKeyframe(); // a picture that is just coming may be it
    run->enqueue([](Run& r) { r.encodeAgain(); });
}

void ScreenStreamer::repeatLastFrame()
{
    run->enqueue([](Run& r) { r.encodeAgain(); });
}

void ScreenStreamer::captureStill()
{
    run->enqueue([](Run& r) { r.encodeStill(); });
}

void ScreenStreamer::Run::forwardEncoder()
{
    const std::weak_ptr<Run> weak = weak_from_this();
    encoder->onFormat = [weak](VideoCodec codec, std::vector<Bytes> parameterSets) {
        const auto self = weak.lock();
        if (self && !self->isStopped && self->onFormat) self->onFormat(codec, std::move(parameterSets));
    };
    encoder->onFrame = [weak](EncodedFrame frame) {
        const auto self = weak.lock();
        if (self && !self->isStopped && self->onFrame) self->onFrame(std::move(frame));
    };
}

void ScreenStreamer::Run::lookUp(int attempt)
{
    const auto displays = capture.shareableDisplays();
    const auto found = std::ranges::find(displays, settings.displayID, &ShareableDisplay::id);
    if (found != displays.end() && begin(*found)) return;

    if (attempt == mostLookups)
        return finishStart(std::unexpected(
            ScreenStreamerError{ScreenStreamerError::Kind::noDisplay, "the display never became shareable"}));
    log.info("display {} not shareable yet (attempt {})", settings.displayID, attempt);
    nextLookup = queue->after(lookupDistance, [this, attempt] {
        if (!isStopped) lookUp(attempt + 1);
    });
}

// False when the display went away since it was listed.
bool ScreenStreamer::Run::begin(const ShareableDisplay& found)
{
    display = found;
    const auto configuration = configurationNow();
    auto made = capture.makeStream(settings.displayID, configuration, queue);
    if (made && !*made) return false;
    if (made) {
        stream = std::move(*made);
        wireStream();
    }
    const auto started = made ? stream->start() : std::unexpected(made.error());
    if (started) {
        reportDisplay(configuration);
        finishStart({});
    } else {
        stream.reset();
        finishStart(std::unexpected(
            ScreenStreamerError{ScreenStreamerError::Kind::platform, started.error().description}));
    }
    return true;
}

void ScreenStreamer::Run::wireStream()
{
    // The stream is ours and on our queue: it tells us nothing once it is gone.
    stream->onSample = [this](const CaptureSample& sample) { takeSample(sample); };
    stream->onGeometryChanged = [this](const ShareableDisplay& changed) {
        if (isStopped) return;
        display = changed;
        applyConfiguration();
    };
    stream->onStopped = [this](const PlatformError& error) {
        if (isStopped) return;
        log.error("capture stopped: {}", error.description);
        if (onError) onError(error.description);
    };
}

CaptureConfiguration ScreenStreamer::Run::configurationNow() const
{
    const auto displayPx = sizeInPixels(display);
    const auto size = captureSize(displayPx.widthPx, displayPx.heightPx, settings.viewport, settings.scale);
    log.info("capture {}x{} from display {} {}x{} for viewport {}x{} at scale {:f}", size.widthPx,
        size.heightPx, settings.displayID, displayPx.widthPx, displayPx.heightPx, settings.viewport.widthPx,
        settings.viewport.heightPx, settings.scale);
    return {size.widthPx, size.heightPx, settings.maxFrameRate, settings.showsCursor};
}

void ScreenStreamer::Run::applyConfiguration()
{
    if (!stream) return;
    const auto configuration = configurationNow();
    const auto applied = stream->updateConfiguration(configuration);
    if (!applied) return log.error("updateConfiguration failed: {}", applied.error().description);
    reportDisplay(configuration);
}

void ScreenStreamer::Run::reportDisplay(const CaptureConfiguration& configuration) const
{
    if (!onDisplayInfo) return;
    onDisplayInfo({static_cast<std::uint32_t>(configuration.widthPx),
        static_cast<std::uint32_t>(configuration.heightPx), static_cast<float>(display.bounds.width),
        static_cast<float>(display.bounds.height)});
}

void ScreenStreamer::Run::takeSample(const CaptureSample& sample)
{
    if (isStopped || sample.status != FrameStatus::complete || !sample.picture) return;
    lastPicture = sample.picture;
    encode(*sample.picture, sample.presentationTime);
}

void ScreenStreamer::Run::encodeAgain()
{
    if (!lastPicture) return;
    auto again = *lastPicture; // the same picture by its number: nothing changed since
    again.damage.clear();
    const auto now = queue->now();
    again.times = {now, now, now};
    encode(again, now);
}

void ScreenStreamer::Run::encodeStill()
{
    if (!stream) return;
    const auto still = stream->captureStill(configurationNow());
    if (!still) return log.error("still capture failed: {}", still.error().description);
    takeSample(*still);
}

// A change that waits for its turn is older than a repeat made meanwhile; time never runs backwards for the
// decoder.
void ScreenStreamer::Run::encode(const PixelBuffer& picture, SteadyTime presentationTime)
{
    lastPresentationTime = std::max(presentationTime, lastPresentationTime + std::chrono::microseconds(1));
    encoder->encode(picture, lastPresentationTime);
}

void ScreenStreamer::Run::finishStart(Result<void, ScreenStreamerError> result)
{
    if (const auto done = std::exchange(onStarted, nullptr)) done(std::move(result));
}

void ScreenStreamer::Run::release()
{
    nextLookup = {};
    stream.reset();
    lastPicture.reset();
    encoder.reset(); // here, so that its output never holds the last reference to us
}

} // namespace pelorin
