#include "PelorinViewer/ViewerProgram.h"

#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Path/NetworkWatch.h"
#include "PelorinPhone/GestureShaper.h"
#include "PelorinPhone/Pairing/PairingExchange.h"
#include "PelorinViewer/HostList.h"
#include "PelorinViewer/PairingRun.h"
#include "PelorinViewer/Viewer.h"
#include "PelorinViewer/ViewerWindow.h"

#include <cstdio>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

constexpr Duration connectTimeout = 10s;

// How long a session that was lost is tried for again: a train's tunnel, a lid that was closed.
constexpr Duration resumption = 10min;

// The session and the decoder, each on a thread of its own when both have work.
constexpr int threads = 2;

// How long the last bytes may take to leave before the process goes.
constexpr auto farewell = 100ms;

// Whom to connect to, once a link is redeemed and a name is looked up.
struct Way {
    std::variant<HostAddress, PairedHost> host;
    std::shared_ptr<const DeviceIdentity> identity{}; // for a host that a rendezvous service leads to
    Duration patience{};
};

Result<std::vector<ScriptStep>, std::string> readScript(const std::string& file)
{
    if (file.empty()) return {};
    const std::ifstream input(file, std::ios::binary);
    if (!input) return std::unexpected(file + ": can't be read");
    std::ostringstream text;
    text << input.rdbuf();
    auto steps = parseScript(text.str());
    if (!steps)
        return std::unexpected(fmt::format("{}:{}: {}", file, steps.error().line, steps.error().text));
    return std::move(*steps);
}

int print(const ViewerResult& result, const ViewerOptions& options)
{
    if (!result.message.empty()) fmt::print(stderr, "pelorin-viewer: {}\n", result.message);
    if (options.printsJSON)
        fmt::print("{}\n", result.report.json());
    else if (options.isHeadless)
        fmt::print("{}\n", result.report.summary());
    return static_cast<int>(result.exit);
}

// One run from start to end: what lives on the session's queue is made and destroyed there. Made and run by
// the main thread.
class Run {
public:
    Run(const EndSignals& signals, const ViewerOptions& newOptions, std::vector<ScriptStep> script)
    {
        queue->post(
            [this, descriptor = signals.descriptor, newOptions, script = std::move(script)]() mutable {
                viewer = std::make_unique<Viewer>(queue, decodeQueue, newOptions, std::move(script));
                viewer->onFinished = [this](ViewerResult result) {
                    finished.set_value(std::move(result));
                    if (window) window->close();
                };
                gestures.emplace(queue);
                gestures->onMessage = [this](const Message& message) { viewer->send(message); };
                signalWatch = queue->whenReadable(descriptor, [this] {
                    signalWatch.cancel();
                    viewer->stop();
                });
            });
    }

    ~Run()
    {
        const auto gone = std::make_shared<std::promise<void>>();
        queue->post([this, gone] {
            signalWatch.cancel();
            networkWatch.reset();
            gestures.reset();
            viewer.reset();
            gone->set_value();
        });
        gone->get_future().wait();
        std::this_thread::sleep_for(farewell);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    ViewerResult withoutWindow(const Way& way)
    {
        connect(way);
        return finished.get_future().get();
    }

    ViewerResult inWindow(const Way& way, ViewerWindow& shown, bool sharesClipboard)
    {
        queue->post([this, &shown] { attach(shown); });
        connect(way);
        shown.run(windowInput(sharesClipboard));
        return finished.get_future().get();
    }

private:
    void connect(const Way& way)
    {
        queue->post([this, way] {
            networkWatch = std::make_unique<NetworkWatch>(queue);
            networkWatch->onChange = [this] { viewer->networkChanged(); };
            viewer->start(connectionTo(way), way.patience, way.identity ? resumption : Duration::zero());
        });
    }

    Connect connectionTo(const Way& way)
    {
        const ConnectTo connectTo = [this](std::string name, std::uint16_t port, Connected connected) {
            return connectTcp(pool, queue, std::move(name), port, connectTimeout, std::move(connected));
        };
        if (const auto* address = std::get_if<HostAddress>(&way.host))
            return [connectTo, address = *address](Connected connected) {
                return connectTo(address.host, address.port, std::move(connected));
            };
        const auto& host = std::get<PairedHost>(way.host);
        Connect tailnet, remote;
        if (host.hasTailnet()) tailnet = connectSecurely(connectTo, host.place, host.key);
        if (host.remote) {
            identity = way.identity;
            remote = connectRemotely(
                queue, {pool, *identity, rendezvousSockets(pool)}, *host.remote, viewer->remoteReports());
        }
        if (tailnet && remote) return connectEitherWay(queue, std::move(tailnet), std::move(remote));
        return tailnet ? tailnet : remote;
    }

    void attach(ViewerWindow& shown)
    {
        window = &shown;
        viewer->onPicture = [this](const ReceivedPicture& picture) { window->show(picture); };
        viewer->onSecond = [this](const PhoneFigures& figures) { window->setFigures(figures); };
        viewer->onHello = [this](const std::string& hostName) {
            title = hostName + " - Pelorin";
            window->setTitle(title);
        };
        viewer->onLost = [this] { window->setTitle("… " + title); };
        viewer->onPath = [this](std::string path) { window->setPath(std::move(path)); };
        viewer->onPointer = [this](const CursorPredictor& pointer) { window->setPointer(pointer); };
        viewer->onCursorImage = [this](message::CursorImage image) { window->setCursor(std::move(image)); };
        viewer->onClipboard = [this](std::string text) { window->setClipboard(std::move(text)); };
    }

    // Called on the window's thread; each goes on to the queue.
    WindowInput windowInput(bool sharesClipboard)
    {
        WindowInput input;
        input.onMouseMove
            = [this](double dx, double dy) { post([=](Run& run) { run.gestures->moveMouse(dx, dy); }); };
        input.onMouseButton = [this](MouseButton button, bool isDown) {
            post([=](Run& run) { run.gestures->pressMouse(button, isDown); });
        };
        input.onWheel
            = [this](double x, double y) { post([=](Run& run) { run.gestures->turnWheel(x, y); }); };
        input.onMessage = [this, sharesClipboard](Message message) {
            if (std::holds_alternative<message::PasteText>(message) && !sharesClipboard) return;
            post([message = std::move(message)](Run& run) { run.viewer->send(message); });
        };
        input.onDrew = [this](Duration drawing) { post([=](Run& run) { run.viewer->drew(drawing); }); };
        input.onClosed = [this] { post([](Run& run) { run.viewer->stop(); }); };
        return input;
    }

    template <class Work>
    void post(Work work)
    {
        queue->post([this, work = std::move(work)] { work(*this); });
    }

    QueuePool pool{threads};
    const QueueRef queue = pool.makeQueue("dev.pelorin.phone.session");
    const QueueRef decodeQueue = pool.makeQueue("dev.pelorin.phone.decode");
    std::promise<ViewerResult> finished;

    // On the queue.
    std::unique_ptr<Viewer> viewer;
    std::shared_ptr<const DeviceIdentity> identity; // while there are remote connections
    std::unique_ptr<NetworkWatch> networkWatch;
    std::optional<GestureShaper> gestures;
    Subscription signalWatch;
    ViewerWindow* window = nullptr;
    std::string title; // of the window, while there is a session
};

ViewerResult runHeadless(
    const EndSignals& signals, const ViewerOptions& options, std::vector<ScriptStep> script, const Way& way)
{
    Run run(signals, options, std::move(script));
    return run.withoutWindow(way);
}

ViewerResult runInWindow(
    const EndSignals& signals, ViewerOptions options, std::vector<ScriptStep> script, const Way& way)
{
    const auto window = ViewerWindow::open(options.showsOverlay);
    if (!window) return {ViewerExit::failed, window.error(), {}};
    if (!options.viewport) options.viewport = (*window)->viewport();
    Run run(signals, options, std::move(script));
    return run.inWindow(way, **window, options.sharesClipboard);
}

Result<Way, ViewerResult> wayTo(PairedHost host, Duration patience = {})
{
    Way way{.host = std::move(host), .patience = patience};
    if (!std::get<PairedHost>(way.host).remote) return way;
    auto identity = ownIdentity();
    if (!identity) return std::unexpected(ViewerResult{ViewerExit::failed, identity.error(), {}});
    way.identity = std::move(*identity);
    return way;
}

Result<Way, ViewerResult> wayTo(const ViewerTarget& target, const EndSignals& signals)
{
    if (const auto* address = std::get_if<HostAddress>(&target)) return Way{*address};
    if (const auto* name = std::get_if<PairedHostName>(&target)) {
        auto known = ownPairedHosts().find(name->text);
        if (!known) return std::unexpected(ViewerResult{ViewerExit::usage, known.error(), {}});
        return wayTo(std::move(*known));
    }
    auto paired = pairWith(std::get<PairingOffer>(target), ownPairedHosts(), signals);
    if (!paired) return std::unexpected(std::move(paired.error()));
    fmt::print(stderr, "Paired with {0}. From now on: pelorin-viewer '{0}'\n", paired->name);
    return wayTo(std::move(*paired), PairingExchange::keyPatience);
}

} // namespace

int runViewer(const ViewerOptions& options)
{
    auto script = readScript(options.scriptFile);
    if (!script) {
        fmt::print(stderr, "pelorin-viewer: {}\n", script.error());
        return static_cast<int>(ViewerExit::usage);
    }
    const EndSignals signals; // before there is any other thread
    const auto way = wayTo(options.target, signals);
    if (!way) return print(way.error(), options);
    const auto result = options.isHeadless ? runHeadless(signals, options, std::move(*script), *way)
                                           : runInWindow(signals, options, std::move(*script), *way);
    return print(result, options);
}

} // namespace pelorin
