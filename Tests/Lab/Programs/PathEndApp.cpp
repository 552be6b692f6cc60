#include "PelorinNet/Queue/Confined.h"
#include "Tests/Lab/PathEnd.h"
#include "Tests/Lab/Programs/PathEndLoad.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

// One end of a remote session in a network of the lab. It prints what happens as JSON, one object a line,
// each with the steady clock's milliseconds as "at". pelorin-path-end sends frames, pelorin-path-host and
// pelorin-path-phone are the two ends of a real session.
namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr Duration reportPeriod = 100ms;
constexpr int poolThreads = 4;

struct Options {
    std::string role;
    std::string signal; // socket of the signalling
    int signalDelayMs = 0;
    std::vector<std::string> stun; // addresses
    std::vector<std::string> turn;
    TurnCredentials credentials;
    LoadOptions load;
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
    settings.switches = PathSetup::Switches::fromEnvironment();
    return settings;
}

// The program on its queue.
class App {
public:
    App(const Options& options, QueuePool& pool, const QueueRef& queue, int signalling, PathEndLoad& newLoad)
        : load(newLoad),
          end(settingsOf(options), pool, queue,
              std::make_unique<SignalLine>(
                  signalling, std::chrono::milliseconds(options.signalDelayMs), queue))
    {
        load.onReport = report;
        load.begin(pool, queue);
        end.onReport = report;
        end.onChannel = [this](std::unique_ptr<Channel> channel) { load.use(std::move(channel)); };
        end.start();
        reports = queue->every(reportPeriod, [this] { reportTraffic(); });
    }
    ~App() { load.end(); }

private:
    void reportTraffic()
    {
        json figures = load.figures();
        if (figures.is_null()) return;
        figures["event"] = "traffic";
        report(std::move(figures));
    }

    PathEndLoad& load;
    PathEnd end;
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
    app.add_option("--frame-bytes", options.load.frameBytes, "Of each frame that goes to the other end");
    app.add_option("--display", options.load.display, "X display of the host's session");
    app.add_option("--support-dir", options.load.support, "Folder of that host");
    CLI11_PARSE(app, argumentCount, arguments);

    sigset_t ends; // blocked before the first thread, which inherits it
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&ends, signal);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    const int signalling
        = options.role == "host" ? SignalLine::listen(options.signal) : SignalLine::connect(options.signal);
    const auto load = makeLoad(options.load);
    QueuePool pool(poolThreads);
    const QueueRef queue = pool.makeQueue("dev.pelorin.path");
    const Confined<App> running(
        queue, [&] { return std::make_unique<App>(options, pool, queue, signalling, *load); });
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
