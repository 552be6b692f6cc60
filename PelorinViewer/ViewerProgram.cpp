#include "PelorinViewer/ViewerProgram.h"

#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinViewer/Viewer.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <sstream>
#include <sys/signalfd.h>
#include <unistd.h>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

constexpr Duration connectTimeout = 10s;

// The session and the decoder, each on a thread of its own when both have work.
constexpr int threads = 2;

// How long the last bytes may take to leave before the process goes.
constexpr auto farewell = 200ms;

// SIGINT and SIGTERM as something to read; blocked in every thread started later.
class EndSignals {
public:
    EndSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        descriptor = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        require(descriptor >= 0, "signalfd");
    }
    ~EndSignals() { close(descriptor); }
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    int descriptor = -1;
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

// Everything that lives on the session's queue, made and destroyed there.
struct Run {
    std::unique_ptr<Viewer> viewer;
    Subscription signalWatch;
};

ViewerResult runHeadless(const ViewerOptions& options, std::vector<ScriptStep> script)
{
    const EndSignals signals;
    std::promise<ViewerResult> finished;
    Run run;
    QueuePool pool(threads);
    const QueueRef queue = pool.makeQueue("dev.pelorin.phone.session");
    const QueueRef decodeQueue = pool.makeQueue("dev.pelorin.phone.decode");
    queue->post([&] {
        run.viewer = std::make_unique<Viewer>(queue, decodeQueue, options, std::move(script));
        run.viewer->onFinished = [&](ViewerResult result) { finished.set_value(std::move(result)); };
        run.signalWatch = queue->whenReadable(signals.descriptor, [&] {
            run.signalWatch.cancel();
            run.viewer->stop();
        });
        run.viewer->start([&](Viewer::Connected connected) {
            return connectTcp(pool, queue, options.address.host, options.address.port, connectTimeout,
                std::move(connected));
        });
    });
    ViewerResult result = finished.get_future().get();

    std::promise<void> gone;
    queue->post([&] {
        run = {};
        gone.set_value();
    });
    gone.get_future().wait();
    std::this_thread::sleep_for(farewell);
    return result;
}

} // namespace

int runViewer(const ViewerOptions& options)
{
    auto script = readScript(options.scriptFile);
    if (!script) {
        fmt::print(stderr, "pelorin-viewer: {}\n", script.error());
        return static_cast<int>(ViewerExit::usage);
    }
    return print(runHeadless(options, std::move(*script)), options);
}

} // namespace pelorin
