#include "PelorinNet/Queue/Confined.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/FrameTraffic.h"
#include "Tests/Lab/PathEnd.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>

// pelorin-path-end: one end of a remote session in a network of the lab. Prints what happens as JSON, one
// object a line, each with the steady clock's milliseconds as "at".
namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr Duration reportPeriod = 100ms;
constexpr int poolThreads = 2;

struct Options {
    std::string role;
    std::string signal; // socket of the signalling
    int signalDelayMs = 0;
    std::vector<std::string> stun; // addresses
    std::vector<std::string> turn;
    TurnCredentials credentials;
    bool forceTurn = false;
    FrameTraffic::Settings frames;
};

double inMs(Duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

void report(json object)
{
    object["at"] = inMs(std::chrono::steady_clock::now().time_since_epoch());
    std::puts(object.dump().c_str());
    std::fflush(stdout);
}

PathEnd::Settings settingsOf(const Options& options)
{
    PathEnd::Settings settings;
    settings.role = options.role == "host" ? PathEnd::Role::host : PathEnd::Role::phone;
    for (const auto& address : options.stun) settings.servers.stun.push_back({address});
    for (const auto& address : options.turn) settings.servers.turn.push_back({address});
    if (!options.credentials.username.empty()) settings.credentials = options.credentials;
    settings.switches.forceTurn = options.forceTurn;
    return settings;
}

// The program on its queue.
class App {
public:
    App(const Options& newOptions, QueueMaker& queues, const QueueRef& newQueue, int signalling)
        : options(newOptions),
          queue(newQueue),
          end(settingsOf(options), queues, queue,
              std::make_unique<SignalLine>(
                  signalling, std::chrono::milliseconds(options.signalDelayMs), queue))
    {
        end.onReport = report;
        end.onChannel = [this](std::unique_ptr<Channel> channel) { use(std::move(channel)); };
        end.start();
    }

private:
    void use(std::unique_ptr<Channel> channel)
    {
        traffic.emplace(std::move(channel), queue, options.frames);
        reports = queue->every(reportPeriod, [this] { reportTraffic(); });
    }

    void reportTraffic()
    {
        const auto now = traffic->figures();
        report(
            {{"event", "traffic"}, {"sent", now.sent}, {"leftOut", now.leftOut}, {"received", now.received},
                {"longestGapMs", inMs(now.longestGap)}, {"latencyMs", inMs(now.latency)},
                {"latencyP95Ms", inMs(now.latencyP95)}, {"isBroken", now.isBroken}});
        traffic->restartGap();
    }

    const Options options;
    const QueueRef queue;
    PathEnd end;
    std::optional<FrameTraffic> traffic;
    Subscription reports;
};

int main(int argumentCount, char** arguments)
{
    Options options;
    CLI::App app("One end of a remote session");
    app.add_option("--role", options.role)->required()->check(CLI::IsMember({"host", "phone"}));
    app.add_option("--signal", options.signal, "Socket of the signalling; the host makes it")->required();
    app.add_option("--signal-delay", options.signalDelayMs, "Milliseconds to the other end");
    app.add_option("--stun", options.stun);
    app.add_option("--turn", options.turn);
    app.add_option("--turn-user", options.credentials.username);
    app.add_option("--turn-credential", options.credentials.credential);
    app.add_flag("--force-turn", options.forceTurn);
    app.add_option("--frame-bytes", options.frames.frameBytes, "Of each frame that goes to the other end");
    CLI11_PARSE(app, argumentCount, arguments);

    sigset_t ends; // blocked before the first thread, which inherits it
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&ends, signal);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    const int signalling
        = options.role == "host" ? SignalLine::listen(options.signal) : SignalLine::connect(options.signal);
    QueuePool pool(poolThreads);
    const QueueRef queue = pool.makeQueue("dev.pelorin.path");
    const Confined<App> running(
        queue, [&] { return std::make_unique<App>(options, pool, queue, signalling); });
    int signal = 0;
    sigwait(&ends, &signal);
    return 0;
}

} // namespace
} // namespace pelorin::lab

int main(int argumentCount, char** arguments)
{
    return pelorin::lab::main(argumentCount, arguments);
}
