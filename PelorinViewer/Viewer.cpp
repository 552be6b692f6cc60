#include "PelorinViewer/Viewer.h"

#include "PelorinCore/Keys/KeyShortcut.h"
#include "PelorinPhone/Pairing/PairingExchange.h"
#include "PelorinViewer/OwnName.h"
#include "PelorinViewer/Picture.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// Large enough not to shrink the usual desktop.
constexpr Viewport headlessViewport{1920, 1080, 1};

constexpr double defaultMotionSeconds = 10;

constexpr const char* howToPair
    = "run `pelorin-host pair` there and give the link it prints to pelorin-viewer";

// Of attempts to resume a session. At first they are short and close together, since the network may be back
// at any moment and nothing may tell us; later ones leave time to a slow network and rest to a dead one.
struct Resuming {
    int upTo; // tries
    Duration limit; // of one try
    Duration pause; // after one that failed
};
constexpr Resuming resuming[] = {{10, 1500ms, 250ms}, {20, 4s, 1s}, {INT_MAX, 20s, 5s}};

const Resuming& resumingAt(int tries)
{
    return *std::ranges::find_if(resuming, [&](const Resuming& each) { return tries < each.upTo; });
}

Duration durationOf(double seconds)
{
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
}

// Without a window the cursor is to be in the pictures, which are all that there is.
ClientCapabilities capabilitiesOf(const ViewerOptions& options)
{
    ClientCapabilities capabilities = clientCapability::choosesDisplay;
    if (!options.isHeadless) capabilities |= clientCapability::drawsCursor;
    if (options.codec != CodecChoice::h264) capabilities |= clientCapability::decodesHEVC;
    return capabilities;
}

SessionOptions sessionOptionsOf(const ViewerOptions& options)
{
    SessionOptions wanted;
    if (options.sharesClipboard) wanted |= sessionOption::clipboardSharing;
    if (options.wantsPrivacy) wanted |= sessionOption::privacyScreen;
    return wanted;
}

} // namespace

Viewer::Viewer(
    QueueRef newQueue, QueueRef newDecodeQueue, ViewerOptions newOptions, std::vector<ScriptStep> steps)
    : queue(std::move(newQueue)),
      decodeQueue(std::move(newDecodeQueue)),
      options(std::move(newOptions)),
      script(queue, std::move(steps))
{
    if (options.frames > 0) openGoals.push_back(Goal::frames);
    if (options.seconds > 0 && options.measure != MeasureKind::motion) openGoals.push_back(Goal::seconds);
    if (!options.scriptFile.empty()) openGoals.push_back(Goal::script);
    if (options.measure != MeasureKind::none) openGoals.push_back(Goal::measurement);
}

void Viewer::start(Connect newConnect, Duration patience, Duration newResumption)
{
    queue->assertCurrent();
    startedAt = queue->now();
    patientUntil = startedAt + patience;
    resumption = newResumption;
    if (options.timeoutSeconds > 0)
        timeoutTimer = queue->after(durationOf(options.timeoutSeconds),
            [this] { finish(ViewerExit::failed, "not done when the time was up"); });
    connect = std::move(newConnect);
    attempt();
}

RemoteReports Viewer::remoteReports()
{
    return {.reached =
                [this](const PhoneConnector::Steps& steps, const std::string& path) {
                    report.connect.isRemote = true;
                    report.connect.steps = steps;
                    report.connect.path = path;
                    if (onPath) onPath(path);
                },
        .failed = [this](const PhoneConnector::Failure& failure) { remoteFailure = failure; },
        .pathChanged =
            [this](const std::string& path) {
                ++report.pathChanges;
                report.connect.path = path;
                if (onPath) onPath(path);
            }};
}

void Viewer::attempt()
{
    attemptedAt = queue->now();
    report.connect = {};
    remoteFailure.reset();
    if (lostAt)
        retryTimer = queue->after(resumingAt(tries).limit, [this] {
            connecting.cancel();
            if (!triesAgain()) finish(ViewerExit::lost, "the session was lost, and no other came about");
        });
    connecting = connect(
        [this](Result<std::unique_ptr<Channel>, NetError> channel) { connected(std::move(channel)); });
}

bool Viewer::triesAgain()
{
    if (lostAt) return triesToResume();
    if (queue->now() >= patientUntil) return false;
    retryTimer = queue->after(PairingExchange::retryPause, [this] { attempt(); });
    return true;
}

bool Viewer::triesToResume()
{
    using Kind = PhoneConnector::Failure::Kind;
    if (queue->now() - *lostAt >= resumption) return false;
    if (remoteFailure && (remoteFailure->kind == Kind::refused || remoteFailure->kind == Kind::wrongHost))
        return false;
    retryTimer = queue->after(resumingAt(tries++).pause, [this] { attempt(); });
    return true;
}

bool Viewer::resumes()
{
    if (resumption == Duration::zero() || !hasBegun) return false;
    if (!lostAt) {
        lostAt = queue->now();
        tries = 0;
        log.warning("the session was lost, trying for another");
    }
    if (session) report.figures = session->total();
    session.reset();
    if (tries > 0) return triesToResume(); // a session that came and went at once
    if (onLost) onLost();
    tries = 1;
    attempt();
    return true;
}

void Viewer::networkChanged()
{
    queue->assertCurrent();
    if (!lostAt || session || isFinished) return;
    tries = 0;
    attempt();
}

void Viewer::stop()
{
    queue->assertCurrent();
    finish(ViewerExit::fine);
}

void Viewer::send(const Message& message)
{
    queue->assertCurrent();
    if (session) session->send(message);
}

void Viewer::drew(Duration drawing)
{
    queue->assertCurrent();
    if (session) session->drew(drawing);
}

void Viewer::connected(Result<std::unique_ptr<Channel>, NetError> channel)
{
    if (isFinished) return;
    retryTimer.cancel();
    if (!channel) {
        if (triesAgain()) return;
        const bool isRefusal = remoteFailure && remoteFailure->kind == PhoneConnector::Failure::Kind::refused;
        return finish(
            isRefusal ? ViewerExit::refused : ViewerExit::cannotConnect, channel.error().description);
    }
    PhoneSession::Settings settings{.clientName = ownName(),
        .viewport = options.viewport.value_or(headlessViewport),
        .display
        = {options.followPhone ? DisplayMode::followPhone : DisplayMode::mirrorMain, 0, options.displayID},
        .capabilities = capabilitiesOf(options)};
    session = std::make_unique<PhoneSession>(std::move(*channel), queue, decodeQueue, std::move(settings));
    session->onHello = [this](const std::string& hostName) { greeted(hostName); };
    session->onPicture = [this](const ReceivedPicture& picture) { showed(picture); };
    session->onFormat = [this](const message::VideoFormat& format) {
        report.codec = format.codec == VideoCodec::hevc ? "hevc" : "h264";
    };
    session->onPathInfo = [this](std::string path) { report.path = std::move(path); };
    session->onDisplayList = [this](const std::vector<DisplayDescriptor>& displays) {
        for (const DisplayDescriptor& display : displays)
            log.info("--display {}: {} {}x{}{}", display.id, display.name, display.widthPt, display.heightPt,
                display.isMain ? ", the main one" : "");
    };
    session->onClipboard = [this](std::string text) {
        if (onClipboard) onClipboard(std::move(text));
    };
    session->onPointer = [this](const CursorPredictor& pointer) {
        if (onPointer) onPointer(pointer);
    };
    session->onCursorImage = [this](message::CursorImage image) {
        if (onCursorImage) onCursorImage(std::move(image));
    };
    session->onSecond = [this](const PhoneFigures& figures) {
        if (onSecond) onSecond(figures);
    };
    session->onEnd = [this](const PhoneSession::End& end) { ended(end); };
    session->start();
}

void Viewer::greeted(const std::string& hostName)
{
    report.hostName = hostName;
    report.connect.hello = queue->now() - attemptedAt;
    log.info("connected to {}", hostName);
    const auto wanted = sessionOptionsOf(options);
    if (wanted != SessionOptions{}) send(message::SetOptions{wanted});
    if (std::exchange(lostAt, std::nullopt)) ++report.resumes;
    const auto alive = lifetime.watch();
    if (onHello) onHello(hostName);
    if (alive && !isFinished && !std::exchange(hasBegun, true)) begin();
}

void Viewer::begin()
{
    if (std::ranges::count(openGoals, Goal::seconds) > 0)
        secondsTimer = queue->after(durationOf(options.seconds), [this] { reached(Goal::seconds); });
    startMeasurement();
    if (options.scriptFile.empty()) return;

    script.onSend = [this](const Message& message) { send(message); };
    script.onScreenshot = [this](const std::string& file) { return saveScreenshot(file); };
    script.onEnd = [this](ScriptPlayer::End end, std::string text) {
        if (end == ScriptPlayer::End::failed)
            finish(ViewerExit::failed, std::move(text));
        else if (end == ScriptPlayer::End::quit)
            finish(ViewerExit::fine);
        else
            reached(Goal::script);
    };
    script.start();
}

void Viewer::startMeasurement()
{
    if (options.measure == MeasureKind::latency) {
        const auto key = KeyShortcut::parse(options.key);
        require(key.has_value(), "the key to press was checked with the options");
        latency.emplace(
            queue, LatencyMeasurement::Settings{options.trials, key->keyCode, key->modifiers, options.probe});
        latency->onSend = [this](const Message& message) { send(message); };
        latency->onEnd = [this](LatencyFigures figures) {
            const bool sawAny = figures.inputToPixelMs.count() > 0;
            report.latency = std::move(figures);
            if (sawAny)
                reached(Goal::measurement);
            else
                finish(ViewerExit::failed, "no press of the key changed the picture");
        };
        latency->start();
    }
    if (options.measure == MeasureKind::motion) {
        motion.emplace(queue, durationOf(options.seconds > 0 ? options.seconds : defaultMotionSeconds));
        motion->onBegin = [this] {
            if (session) session->restartFigures();
        };
        motion->onEnd = [this](const MotionFigures& figures) {
            report.motion = figures;
            if (figures.distinctFps > 0)
                reached(Goal::measurement);
            else
                finish(ViewerExit::failed, "no picture came while measuring");
        };
        motion->start();
    }
}

void Viewer::showed(const ReceivedPicture& picture)
{
    if (!report.firstPictureMs)
        report.firstPictureMs
            = std::chrono::duration<double, std::milli>(picture.decodedAt - startedAt).count();
    if (!report.connect.firstPicture) {
        report.connect.firstPicture = picture.decodedAt - attemptedAt;
        log.info("first picture");
    }
    last = picture.picture;
    ++frames;
    if (options.isHeadless) session->drew({}); // nothing is drawn, which takes no time
    if (onPicture) onPicture(picture);

    // Each of these may be what ends the run.
    const auto alive = lifetime.watch();
    const auto goesOn = [&] { return alive && !isFinished; };
    if (goesOn() && latency) latency->sawPicture(picture);
    if (goesOn() && motion) motion->sawPicture(picture.picture);
    if (goesOn()) script.sawPicture(picture.picture);
    if (goesOn() && frames == options.frames) reached(Goal::frames);
}

void Viewer::ended(const PhoneSession::End& end)
{
    using Kind = PhoneSession::End::Kind;
    if (end.kind == Kind::notLetIn && triesAgain()) return;
    if (end.kind == Kind::dropped && resumes()) return;
    const bool isRefusal = end.kind == Kind::refused || end.kind == Kind::incompatible
        || end.handshake == PelorinTLS::HandshakeFailure::keyRefused;
    finish(isRefusal ? ViewerExit::refused : ViewerExit::lost, explained(end));
}

std::string Viewer::explained(const PhoneSession::End& end) const
{
    using enum PelorinTLS::HandshakeFailure;
    if (end.handshake == keyRefused)
        return fmt::format("the host does not know this device, or no longer; {}", howToPair);
    if (end.handshake == notTLS)
        return "what listens there does not speak TLS: the host asks nobody to be paired now, or is another "
               "program";
    const bool wasPlain = std::holds_alternative<HostAddress>(options.target);
    if (wasPlain && end.isUnanswered)
        return fmt::format("{}; perhaps this host talks to paired phones only: then {}", end.text, howToPair);
    return end.text;
}

void Viewer::reached(Goal goal)
{
    std::erase(openGoals, goal);
    if (openGoals.empty()) finish(ViewerExit::fine);
}

Result<void, std::string> Viewer::saveScreenshot(const std::string& file)
{
    if (!last) return std::unexpected("there is no picture to save yet");
    return writePNG(*last, file);
}

void Viewer::finish(ViewerExit exit, std::string message)
{
    if (std::exchange(isFinished, true)) return;
    connecting.cancel();
    retryTimer.cancel();
    secondsTimer.cancel();
    timeoutTimer.cancel();
    latency.reset();
    motion.reset();
    if (session) {
        report.figures = session->total();
        session->leave();
    }
    if (last) {
        report.widthPx = last->widthPx;
        report.heightPx = last->heightPx;
    }
    if (!options.screenshotFile.empty()) {
        const auto saved = saveScreenshot(options.screenshotFile);
        if (!saved && exit == ViewerExit::fine) {
            exit = ViewerExit::failed;
            message = saved.error();
        }
    }
    if (onFinished) onFinished({exit, std::move(message), std::move(report)});
}

} // namespace pelorin
