#include "PelorinHost/Linux/X11CaptureStream.h"

#include "PelorinHost/Screen/DamageRects.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <utility>

namespace pelorin {
namespace {

bool isValid(const CaptureConfiguration& c)
{
    return c.widthPx > 0 && c.heightPx > 0 && c.widthPx % 2 == 0 && c.heightPx % 2 == 0 && c.maxFrameRate > 0;
}

} // namespace

Result<std::unique_ptr<CaptureStream>, PlatformError> X11CaptureStream::open(const std::string& displayName,
    std::uint32_t displayID, const CaptureConfiguration& configuration, QueueRef captureQueue)
{
    if (!isValid(configuration)) return std::unexpected(PlatformError{"the capture size is not even"});
    auto connection = X11Connection::open(displayName);
    if (!connection) return std::unexpected(connection.error());

    std::unique_ptr<X11CaptureStream> stream(
        new X11CaptureStream(std::move(*connection), std::move(captureQueue)));
    watchMonitors(stream->connection); // before the question, so that no change falls between
    auto grabber = X11ScreenGrabber::open(stream->connection, stream->eventHandler());
    if (!grabber) return std::unexpected(grabber.error());
    stream->grabber = std::move(*grabber);
    auto display = stream->findDisplay(displayID);
    if (!display) {
        if (stream->connection.isBroken()) return std::unexpected(stream->silence());
        return nullptr;
    }
    stream->display = std::move(*display);
    stream->configure(configuration);
    return stream;
}

X11CaptureStream::X11CaptureStream(X11Connection newConnection, QueueRef newQueue)
    : queue(std::move(newQueue)),
      connection(std::move(newConnection))
{
}

Result<void, PlatformError> X11CaptureStream::start()
{
    queue->assertCurrent();
    if (connection.isBroken()) return std::unexpected(PlatformError{"the X server is gone"});
    readable = queue->whenReadable(connection.fileDescriptor(), [this] { advance(); });
    queue->post([this, alive = lifetime.watch()] {
        if (alive) advance();
    });
    return {};
}

Result<void, PlatformError> X11CaptureStream::updateConfiguration(
    const CaptureConfiguration& newConfiguration)
{
    queue->assertCurrent();
    if (isStopped) return std::unexpected(PlatformError{"the capture has stopped"});
    if (!isValid(newConfiguration)) return std::unexpected(PlatformError{"the capture size is not even"});
    configure(newConfiguration);
    queue->post([this, alive = lifetime.watch()] {
        if (alive && readable) advance();
    });
    return {};
}

Result<CaptureSample, PlatformError> X11CaptureStream::captureStill(
    const CaptureConfiguration& newConfiguration)
{
    queue->assertCurrent();
    if (isStopped) return std::unexpected(PlatformError{"the capture has stopped"});
    if (!isValid(newConfiguration)) return std::unexpected(PlatformError{"the capture size is not even"});
    if (newConfiguration != configuration) configure(newConfiguration);
    isAllChanged = true;
    noteChange();
    auto sample = takePicture();
    // What came in with the replies would wake nobody; it is looked at after our caller is done.
    queue->post([this, alive = lifetime.watch()] {
        if (alive && readable) advance();
    });
    if (!sample) return std::unexpected(sample.error());
    if (!*sample) return std::unexpected(PlatformError{"the display shows nothing"});
    return **sample;
}

void X11CaptureStream::configure(const CaptureConfiguration& newConfiguration)
{
    configuration = newConfiguration;
    painter.emplace(static_cast<int>(display.bounds.width), static_cast<int>(display.bounds.height),
        configuration.widthPx, configuration.heightPx);
    pacer = FramePacer(configuration.maxFrameRate);
    turn = {};
    if (!configuration.showsCursor) cursor.reset();
    if (configuration.showsCursor && !cursor) cursor.emplace(connection, eventHandler());
    isAllChanged = true;
    noteChange();
}

X11Connection::EventHandler X11CaptureStream::eventHandler()
{
    return [this](const xcb_generic_event_t& event) { handle(event); };
}

void X11CaptureStream::handle(const xcb_generic_event_t& event)
{
    if (isMonitorChange(connection, event)) mayMonitorsDiffer = true;
    if ((grabber && grabber->isDamage(event)) || (cursor && cursor->takes(event))) noteChange();
}

void X11CaptureStream::noteChange()
{
    if (!changedAt) changedAt = queue->now();
}

// Goes as far as it can now. Callbacks may destroy us, so nothing of ours is touched after one unasked.
void X11CaptureStream::advance()
{
    const auto alive = lifetime.watch();
    for (;;) {
        if (isStopped) return;
        // Also those that xcb read on the way, for which the descriptor does not become readable again.
        connection.takeEvents(eventHandler());
        if (connection.isBroken()) return stopWith(silence());
        if (mayMonitorsDiffer) {
            if (!refreshDisplay()) return;
            continue;
        }
        if (!changedAt || isTooEarly()) return;

        auto sample = takePicture();
        if (!sample) return stopWith(sample.error());
        if (!*sample || !onSample) continue;
        const auto callback = onSample;
        callback(**sample);
        if (!alive) return;
    }
}

std::optional<ShareableDisplay> X11CaptureStream::findDisplay(std::uint32_t id)
{
    for (auto& found : queryMonitors(connection, eventHandler()))
        if (found.id == id) return std::move(found);
    return std::nullopt;
}

// Then a timer brings us back.
bool X11CaptureStream::isTooEarly()
{
    const auto wait = pacer.nextPicture() - queue->now();
    if (wait <= Duration::zero()) return false;
    if (!turn)
        turn = queue->after(wait, [this] {
            turn = {};
            advance();
        });
    return true;
}

// False when that ended the stream or us.
bool X11CaptureStream::refreshDisplay()
{
    mayMonitorsDiffer = false;
    auto found = findDisplay(display.id);
    if (connection.isBroken()) return true; // the next round says so
    if (!found) {
        stopWith({fmt::format("display {} ({}) is gone", display.id, display.name)});
        return false;
    }
    if (*found == display) return true;
    display = std::move(*found);
    configure(configuration);
    const auto alive = lifetime.watch();
    const auto callback = onGeometryChanged;
    if (callback) callback(ShareableDisplay(display));
    return static_cast<bool>(alive);
}

// Nothing when what changed is not on this display.
Result<std::optional<CaptureSample>, PlatformError> X11CaptureStream::takePicture()
{
    CaptureTimes times;
    times.damaged = changedAt.value_or(queue->now());
    changedAt.reset();
    pacer.taken(queue->now());
    const auto changed = changedPictureRects();
    if (!changed) return std::unexpected(silence());
    const auto& rects = *changed;
    if (rects.empty()) return std::nullopt;
    if (auto painted = paint(rects, times); !painted) {
        // The screen may have shrunk under us; then an event says so and the picture is taken anew.
        if (connection.isBroken()) return std::unexpected(silence());
        const auto before = display;
        isAllChanged = true;
        noteChange();
        const auto now = findDisplay(display.id);
        if (now && *now == before) return std::unexpected(painted.error());
        mayMonitorsDiffer = true;
        return std::nullopt;
    }

    const auto picture = painter->picture();
    picture->sequence = ++sequence;
    picture->damage = rects;
    picture->times = times;
    return CaptureSample{FrameStatus::complete, picture, times.damaged};
}

// Nothing when the server does not say.
std::optional<std::vector<PixelRect>> X11CaptureStream::changedPictureRects()
{
    auto changed = grabber->takeDamage();
    if (!changed) return std::nullopt;
    if (cursor) std::ranges::copy(cursor->follow(), std::back_inserter(*changed));
    if (std::exchange(isAllChanged, false)) return std::vector{painter->wholePicture()};
    std::vector<PixelRect> rects;
    for (auto rect : *changed) {
        rect.x -= static_cast<int>(display.bounds.x);
        rect.y -= static_cast<int>(display.bounds.y);
        rects.push_back(painter->pictureRectOf(rect));
    }
    return mergedDamage(rects);
}

Result<void, PlatformError> X11CaptureStream::paint(std::span<const PixelRect> rects, CaptureTimes& times)
{
    std::vector<PixelRect> parts;
    for (const auto& rect : rects) parts.push_back(rootRectOf(rect));
    auto grabbed = grabber->grab(parts);
    if (!grabbed) return std::unexpected(grabbed.error());
    times.grabbed = queue->now();
    for (std::size_t i = 0; i < rects.size(); ++i) {
        const auto& pixels = (*grabbed)[i];
        if (cursor) cursor->drawOver(pixels, parts[i]);
        painter->paint(rects[i], {pixels.first, pixels.stride});
    }
    times.converted = queue->now();
    return {};
}

PixelRect X11CaptureStream::rootRectOf(const PixelRect& pictureRect) const
{
    auto rect = painter->sourceRectOf(pictureRect);
    rect.x += static_cast<int>(display.bounds.x);
    rect.y += static_cast<int>(display.bounds.y);
    return rect;
}

// Why the server did not answer.
PlatformError X11CaptureStream::silence() const
{
    return {connection.isBroken() ? "the X server is gone" : "the X server does not answer"};
}

void X11CaptureStream::stopWith(PlatformError reason)
{
    if (std::exchange(isStopped, true)) return;
    turn = {};
    readable = {};
    const auto callback = onStopped;
    if (callback) callback(std::move(reason));
}

} // namespace pelorin
