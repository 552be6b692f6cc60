#pragma once

#include "PelorinHost/Platform/DisplayCapture.h"

#include <algorithm>

namespace pelorin {

class FakeCaptureStream;

// Displays by script, and streams that the test feeds. Everything on the test's one thread.
class FakeDisplayCapture final : public DisplayCapture {
public:
    std::vector<ShareableDisplay> displays{{.id = 7,
        .name = "fake",
        .modeWidthPx = 1920,
        .modeHeightPx = 1080,
        .bounds = {0, 0, 1920, 1080},
        .isMain = true}};
    int displaysFromLookup = 1; // the first lookup that lists them
    bool isDisplayGoneOnceListed = false; // for future streams
    // What refuses from now on, for both kinds of streams: running and future.
    std::optional<PlatformError> makeFailure;
    std::optional<PlatformError> startFailure;
    std::optional<PlatformError> updateFailure;

    int lookups = 0;
    int streamsMade = 0;
    FakeCaptureStream* stream = nullptr; // the latest, while it lives

    std::vector<ShareableDisplay> shareableDisplays() override
    {
        return ++lookups < displaysFromLookup ? std::vector<ShareableDisplay>{} : displays;
    }
    Result<std::unique_ptr<CaptureStream>, PlatformError> makeStream(
        std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue) override;
};

class FakeCaptureStream final : public CaptureStream {
public:
    FakeCaptureStream(FakeDisplayCapture& newCapture, std::uint32_t newDisplayID,
        const CaptureConfiguration& newConfiguration, QueueRef newQueue)
        : displayID(newDisplayID),
          configuration(newConfiguration),
          capture(newCapture),
          queue(std::move(newQueue))
    {
    }
    ~FakeCaptureStream() override
    {
        queue->assertCurrent();
        if (capture.stream == this) capture.stream = nullptr;
    }

    const std::uint32_t displayID;
    CaptureConfiguration configuration;
    std::vector<CaptureConfiguration> updates; // those asked for, the refused ones too
    bool isStarted = false;

    // Each of these happens on the capture queue; drive the queues for it.
    // A picture of the configured size, all of one brightness, damaged as a whole.
    void feed(std::uint8_t luma = 100)
    {
        happen([luma](FakeCaptureStream& s) { s.deliver(s.sampleOf(luma)); });
    }
    void report(CaptureSample sample)
    {
        happen([sample = std::move(sample)](FakeCaptureStream& s) { s.deliver(sample); });
    }
    void stopByItself(std::string reason)
    {
        happen([reason = std::move(reason)](FakeCaptureStream& s) {
            const auto callback = s.onStopped;
            if (callback) callback({reason});
        });
    }
    void changeGeometry(ShareableDisplay display)
    {
        happen([display = std::move(display)](FakeCaptureStream& s) {
            std::ranges::replace(s.capture.displays, display.id, display, &ShareableDisplay::id);
            const auto callback = s.onGeometryChanged;
            if (callback) callback(display);
        });
    }

    Result<void, PlatformError> start() override
    {
        queue->assertCurrent();
        if (capture.startFailure) return std::unexpected(*capture.startFailure);
        isStarted = true;
        return {};
    }
    Result<void, PlatformError> updateConfiguration(const CaptureConfiguration& newConfiguration) override
    {
        queue->assertCurrent();
        updates.push_back(newConfiguration);
        if (capture.updateFailure) return std::unexpected(*capture.updateFailure);
        configuration = newConfiguration;
        return {};
    }
    Result<CaptureSample, PlatformError> captureStill(const CaptureConfiguration& newConfiguration) override
    {
        queue->assertCurrent();
        configuration = newConfiguration;
        return sampleOf(200);
    }

private:
    struct Picture {
        PixelBuffer buffer;
        std::vector<std::uint8_t> luma;
        std::vector<std::uint8_t> chroma;
    };

    CaptureSample sampleOf(std::uint8_t luma)
    {
        const int width = configuration.widthPx;
        const int height = configuration.heightPx;
        const auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
        const auto made = std::make_shared<Picture>();
        made->luma.assign(size, luma);
        made->chroma.assign(size / 2, 128);
        const auto now = queue->now();
        made->buffer = {width, height, made->luma.data(), made->chroma.data(), width, width, ++sequence,
            {{0, 0, width, height}}, {now, now, now}};
        return {FrameStatus::complete, std::shared_ptr<const PixelBuffer>(made, &made->buffer), now};
    }

    void deliver(const CaptureSample& sample)
    {
        const auto callback = onSample;
        if (callback) callback(sample);
    }

    template <class Event>
    void happen(Event event)
    {
        queue->post([this, event = std::move(event), alive = lifetime.watch()] {
            if (alive) event(*this);
        });
    }

    FakeDisplayCapture& capture;
    QueueRef queue;
    std::uint64_t sequence = 0;
    Lifetime lifetime;
};

inline Result<std::unique_ptr<CaptureStream>, PlatformError> FakeDisplayCapture::makeStream(
    std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue)
{
    captureQueue->assertCurrent();
    ++streamsMade;
    if (makeFailure) return std::unexpected(*makeFailure);
    if (isDisplayGoneOnceListed) return nullptr;
    auto made = std::make_unique<FakeCaptureStream>(*this, displayID, configuration, std::move(captureQueue));
    stream = made.get();
    return made;
}

} // namespace pelorin
