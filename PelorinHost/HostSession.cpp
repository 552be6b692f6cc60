#include "PelorinHost/HostSession.h"

#include "PelorinCore/Label.h"
#include "PelorinHost/Session/CursorSampler.h"
#include "PelorinHost/Session/DisplaySelection.h"
#include "PelorinHost/Session/HelloExchange.h"
#include "PelorinHost/Session/Liveness.h"
#include "PelorinHost/Session/PhoneDisplay.h"
#include "PelorinHost/Session/PhoneInput.h"
#include "PelorinHost/Session/StreamKeeper.h"
#include "PelorinHost/Session/VideoSender.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto statsPeriod = 1s;
constexpr auto pathPeriod = 5s;
constexpr auto displayWatchPeriod = 2s;
constexpr auto resizeDebounce = 500ms; // of viewport changes, which come in bursts while a phone turns
constexpr auto switchPause
    = 500ms; // between two switches of the display: each starts capture and encoder anew

VideoCodec codecFor(const HostConfig& config, ClientCapabilities capabilities)
{
    const bool isHEVC = config.preferHEVC && capabilities.contains(clientCapability::decodesHEVC);
    return isHEVC ? VideoCodec::hevc : VideoCodec::h264;
}

template <class T>
constexpr bool isInput = std::is_same_v<T, message::MouseMove>
    || std::is_same_v<T, message::MouseButtonChange> || std::is_same_v<T, message::Scroll>
    || std::is_same_v<T, message::Key> || std::is_same_v<T, message::Text>;

} // namespace

// Everything that exists from hello to the end; its destruction lets go of it all.
struct HostSession::Running {
    Running(HostSession& session, const message::Hello& hello)
        : capabilities(hello.capabilities),
          viewport(hello.viewport),
          displaySettings(hello.display),
          rate(session.config),
          statistics(session.queue->now()),
          liveness(session.queue->now(), session.config.idleTimeoutMinutes * 60),
          displays(session.surroundings.platform.displayCapture(), session.surroundings.defaultDisplay),
          phoneDisplay(session.surroundings.virtualDisplays, session.queue),
          video(session.outlet, statistics, rate, session.queue,
              capabilities.contains(clientCapability::readsFrameStamps)),
          input(session.surroundings.platform, session.queue),
          stream(session.surroundings.platform.displayCapture(), session.surroundings.platform.compression(),
              session.queue, session.surroundings.queues.makeQueue("dev.pelorin.host.capture"),
              [&session] { return session.streamSettings(); })
    {
    }

    bool drawsCursor() const { return capabilities.contains(clientCapability::drawsCursor); }

    ClientCapabilities capabilities;
    Viewport viewport;
    DisplaySettings displaySettings;
    DisplaySelection::Choice display; // being streamed
    SessionFigures figures;
    RateAdaptation rate;
    SessionStatistics statistics;
    Liveness liveness;
    DisplaySelection displays;
    PhoneDisplay phoneDisplay;
    std::unique_ptr<PowerAssertion> displayAwake;
    VideoSender video;
    PhoneInput input;
    std::unique_ptr<CursorSampler> cursor; // for a phone that draws it itself
    StreamKeeper stream;
    std::optional<std::string> lastPath;
    SteadyTime nextSwitchAt;
    Subscription statsTimer;
    Subscription pathTimer;
    Subscription displayWatchTimer;
    Subscription pendingResize;
    Subscription pendingSwitch;
};

HostSession::HostSession(SessionSurroundings newSurroundings, HostConfig newConfig,
    std::unique_ptr<Channel> newConnection, std::string newPeer, QueueRef newQueue)
    : peer(std::move(newPeer)),
      peerAddress(newConnection->remoteAddress()),
      surroundings(std::move(newSurroundings)),
      config(std::move(newConfig)),
      connection(std::move(newConnection)),
      queue(std::move(newQueue)),
      outlet(*connection, queue)
{
}

HostSession::~HostSession() = default;

void HostSession::start()
{
    queue->assertCurrent();
    outlet.onClogged = [this](std::size_t unsentBytes) { end(SessionEnd::notReading(unsentBytes)); };
    connection->onBytes = [this](ByteView bytes) { receive(bytes); };
    connection->onClosed = [this](const std::optional<NetError>& error) { connectionClosed(error); };
    connection->start(queue);
}

void HostSession::end(SessionEnd how)
{
    queue->assertCurrent();
    if (std::exchange(closed, true)) return;
    endKind = how.kind;
    if (how.farewell) outlet.send(*how.farewell);
    running.reset();
    connection->finish();
    const auto report = std::move(onClose); // outlives us, should the report be our end
    if (report) report(*this, std::move(how.reason));
}

SessionFigures HostSession::figures() const
{
    return running ? running->figures : SessionFigures{};
}

void HostSession::connectionClosed(const std::optional<NetError>& error)
{
    tlsFailed = connection->hasFailedHandshake();
    end(error ? SessionEnd::receiveFailed(*error) : SessionEnd::disconnected());
}

void HostSession::receive(ByteView bytes)
{
    if (closed) return;
    auto messages = decoder.feed(bytes);
    if (!messages) return end(SessionEnd::protocolError(messages.error()));
    const auto alive = lifetime.watch();
    for (auto& message : *messages) {
        handle(message);
        if (!alive || closed) return;
    }
}

SessionState HostSession::state() const
{
    if (running) return SessionState::running;
    const bool isForPairing = peerIdentity().starts_with(PelorinTLS::pairingPrefix);
    return isForPairing ? SessionState::pairing : SessionState::beforeHello;
}

void HostSession::handle(Message& message)
{
    if (running) running->liveness.heard(queue->now());
    switch (ruleFor(typeOf(message), state())) {
    case MessageRule::handle:
        return std::visit([this](const auto& alternative) { on(alternative); }, message);
    case MessageRule::ignore:
        return;
    case MessageRule::refuse:
        return end(SessionEnd::onlyForPairing(typeOf(message)));
    case MessageRule::fault:
        return end(SessionEnd::unexpected(typeOf(message)));
    }
}

void HostSession::on(const message::Hello& hello)
{
    log.info("hello from {} viewport {}x{} mode {} density {:f}", asLabel(hello.clientName),
        hello.viewport.widthPx, hello.viewport.heightPx, static_cast<int>(hello.display.mode),
        hello.display.density);
    HostPlatform& platform = surroundings.platform;
    if (isRemoved()) return end(SessionEnd::removed());
    if (auto refusal = refusalOf(hello, platform.permissions())) {
        log.warning("hello refused: {}", refusal->reason);
        return end(std::move(*refusal));
    }
    saidHello = true;
    outlet.send(message::HelloAck{protocolVersion, platform.system().hostName()});
    running = std::make_unique<Running>(*this, hello);
    running->figures.peer = peer;
    running->figures.clientName = asLabel(hello.clientName);
    running->figures.path = connection->pathDescription();
    platform.power().declareUserActivity("Pelorin session started");
    running->displayAwake = platform.power().preventDisplaySleep("Pelorin remote session", queue);
    const auto alive = lifetime.watch();
    if (onHello) onHello(*this);
    if (alive && !closed) startStreaming();
}

void HostSession::on(const message::Ping& ping)
{
    outlet.send(message::Pong{ping.id, ping.sentMicros});
}

void HostSession::on(const message::Bye&)
{
    end(SessionEnd::byClient());
}

void HostSession::on(const message::RequestKeyframe&)
{
    running->video.keyframeWanted();
}

void HostSession::on(const message::SetViewport& change)
{
    running->viewport = change.viewport;
    running->pendingResize = queue->after(resizeDebounce, [this] { arrangeDisplay(); });
}

void HostSession::on(const message::SetDisplay& change)
{
    if (change.settings == running->displaySettings) return;
    running->displaySettings = change.settings;
    const auto pause = std::max(Duration::zero(), running->nextSwitchAt - queue->now());
    running->pendingSwitch = queue->after(pause, [this] { arrangeDisplay(); });
}

void HostSession::on(const message::ClientReport& report)
{
    const auto change = running->rate.update(report);
    if (change.bitrate) running->stream.setBitrate(*change.bitrate);
    if (change.scale) running->stream.update(*change.scale);
}

void HostSession::on(const message::SetOptions& change)
{
    options = change.options;
    shareClipboard();
    if (onOptionsChanged) onOptionsChanged(*this);
}

void HostSession::on(const message::PasteText& paste)
{
    running->input.paste(paste);
}

// The channel may have been set up a moment before the phone was removed.
bool HostSession::isRemoved() const
{
    const std::string identity = peerIdentity();
    if (!identity.starts_with(PelorinTLS::devicePrefix)) return false;
    const auto devices = surroundings.pairing.devices();
    return std::ranges::none_of(devices, [&](const auto& device) { return device.id == identity; });
}

// Only who set up this very channel with the link's key knows what the link said.
void HostSession::on(const message::PairRequest& request)
{
    const bool isProven = state() == SessionState::pairing && request.pairingID == peerIdentity();
    const auto device
        = isProven ? surroundings.pairing.redeem(request.pairingID, request.deviceName) : std::nullopt;
    if (!device) return end(SessionEnd::pairingCodeExpired());
    const ByteView key = device->key.view();
    outlet.send(message::PairResult{
        device->id, Bytes(key.begin(), key.end()), surroundings.platform.system().hostName()});
    end(SessionEnd::paired(device->name, device->id));
}

void HostSession::on(const message::LiveActivityRegister&)
{
    outlet.send(message::LiveActivityInfo{false, {}, surroundings.platform.system().hostName(), {}});
}

// Pointer, buttons, scrolling, keys and text. What else reaches this, the table has not let through.
template <class InputMessage>
void HostSession::on(const InputMessage& input)
{
    if constexpr (isInput<InputMessage>) {
        running->liveness.sawInput(queue->now());
        running->input.handle(input);
        if constexpr (std::is_same_v<InputMessage, message::MouseMove>)
            if (running->cursor) running->cursor->pointerMoved();
    }
}

void HostSession::startStreaming()
{
    if (running->drawsCursor()) startCursor();
    running->video.onKeyframeWanted = [this] { running->stream.requestKeyframe(); };
    running->video.onRepeatWanted = [this] { running->stream.repeatLastFrame(); };
    running->stream.onFormat = [this](VideoCodec codec, std::vector<Bytes> sets) {
        running->video.setFormat(codec, std::move(sets));
    };
    running->stream.onFrame = [this](EncodedFrame frame) { running->video.send(std::move(frame)); };
    running->stream.onDisplayInfo = [this](message::DisplayInfo info) { captureIs(info); };
    running->stream.onGivenUp = [this](SessionEnd how) { end(std::move(how)); };
    refreshDisplays();
    checkPath();
    running->statsTimer = queue->every(statsPeriod, [this] { statisticsTick(); });
    running->pathTimer = queue->every(pathPeriod, [this] { checkPath(); });
    running->displayWatchTimer = queue->every(displayWatchPeriod, [this] { watchDisplays(); });
    arrangeDisplay();
}

void HostSession::startCursor()
{
    running->cursor = std::make_unique<CursorSampler>(
        queue, surroundings.queues.makeQueue("dev.pelorin.host.cursor"),
        [&platform = surroundings.platform] { return platform.makeCursorSource(); },
        running->input.injector());
    running->cursor->onPosition = [this](message::CursorPosition at) { outlet.sendLatest(at); };
    running->cursor->onImage = [this](message::CursorImage image) { outlet.sendLatest(std::move(image)); };
}

void HostSession::shareClipboard()
{
    auto& clipboard = running->input.clipboard();
    if (!options.contains(sessionOption::clipboardSharing)) return clipboard.stop();
    if (clipboard.isStarted()) return;
    clipboard.start([this](std::string text) { outlet.sendLatest(message::Clipboard{std::move(text)}); });
}

ScreenStreamer::Settings HostSession::streamSettings()
{
    running->nextSwitchAt = queue->now() + switchPause;
    refreshDisplays();
    chooseDisplay();
    return {.displayID = running->display.displayID,
        .showsCursor = !running->drawsCursor(),
        .viewport = running->viewport,
        .scale = running->rate.scale(),
        .maxFrameRate = usableFrameRate(config.maxFrameRate),
        .codecPreference = codecFor(config, running->capabilities),
        .startBitrate = running->rate.bitrate()};
}

void HostSession::captureIs(const message::DisplayInfo& info)
{
    running->rate.captureIs(info);
    outlet.send(info);
}

// With no display at all, as while the display server restarts, the one that was streamed is waited for.
void HostSession::chooseDisplay()
{
    const auto choice = running->displays.choose(running->displaySettings);
    if (choice.displayID == 0) return;
    running->display = choice;
    running->input.injector().confineTo(running->display.displayID);
    if (running->cursor) running->cursor->follow(running->display.bounds, running->display.pointsPerPixel);
}

// Has the display made, or taken away, that the phone wants for itself, and streams what is to be streamed
// then.
void HostSession::arrangeDisplay()
{
    const auto& settings = running->displaySettings;
    const bool followsPhone = settings.mode == DisplayMode::followPhone;
    const auto size
        = followsPhone ? std::optional(pointSizeFor(running->viewport, settings.density)) : std::nullopt;
    running->phoneDisplay.want(size, [this, followsPhone] {
        const auto made = running->phoneDisplay.id();
        if (followsPhone && !made)
            log.warning("virtual display unavailable; falling back to the main display");
        running->displays.setPhoneDisplay(made);
        refreshDisplays();
        switchDisplay();
        running->stream.update(running->viewport);
    });
}

void HostSession::switchDisplay()
{
    const auto before = running->display.displayID;
    chooseDisplay();
    if (running->display.displayID != before || !running->stream.isStarted()) running->stream.start();
}

void HostSession::watchDisplays()
{
    const bool haveChanged = refreshDisplays();
    if (running->displays.lacksPhoneDisplay()) return arrangeDisplay();
    // What became of the streamed one itself, its stream sees; with none yet, one is being made.
    if (haveChanged && running->stream.isStarted()) switchDisplay();
}

bool HostSession::refreshDisplays()
{
    if (!running->displays.refresh()) return false;
    if (running->capabilities.contains(clientCapability::choosesDisplay))
        outlet.send(running->displays.list());
    return true;
}

void HostSession::statisticsTick()
{
    const SteadyTime now = queue->now();
    switch (running->liveness.tick(now)) {
    case Liveness::Verdict::silent:
        return end(SessionEnd::silent());
    case Liveness::Verdict::idle:
        return end(SessionEnd::idle(running->liveness.idleLimitSeconds));
    case Liveness::Verdict::alive:
        break;
    }
    running->video.tick();
    running->rate.tick();
    SessionFigures& figures = running->figures;
    figures.displayLabel = running->display.displayLabel;
    figures.targetMbps = running->rate.bitrate() / 1e6;
    running->statistics.tick(now, figures);
    if (onStats) onStats(figures);
}

void HostSession::checkPath()
{
    const std::string path = connection->pathDescription();
    if (path == running->lastPath) return;
    running->lastPath = path;
    running->figures.path = path;
    log.info("network path: {}", path);
    outlet.send(message::PathInfo{path});
}

} // namespace pelorin
