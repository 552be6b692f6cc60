// pelorin-rendezvous: the service by which phones find hosts, from anywhere. See --help.

#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/Confined.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "PelorinRendezvous/Cluster/NatsBroker.h"
#include "PelorinRendezvous/Linux/EpollSockets.h"

#include <atomic>
#include <charconv>
#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <sys/resource.h>

namespace pelorin {
namespace {

constexpr int quitDone = SIGUSR1; // how the service wakes the main thread when all have left

struct Options {
    SocketAddress address = SocketAddress::ipv6({}, 7443);
    std::string certificateFile;
    std::string keyFile;
    bool isInsecure = false;
    std::vector<std::string> relays;
    std::string relaySecret;
    LogLevel logLevel = LogLevel::info;
    NatsBroker::Options broker;
    Service::Options service;
};

// 192.0.2.7:443 or [2001:db8::7]:443; port 0 lets the system choose.
std::optional<SocketAddress> addressIn(const std::string& text)
{
    const auto colon = text.rfind(':');
    if (colon == text.npos) return std::nullopt;
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error != std::errc{} || rest != end) return std::nullopt;
    const std::string host = text.substr(0, colon);
    const bool isBracketed = host.starts_with('[') && host.ends_with(']');
    if (host.contains(':') != isBracketed) return std::nullopt;
    return SocketAddress::parse(isBracketed ? host.substr(1, host.size() - 2) : host, port);
}

// A file's first line keeps the secret out of the list of processes.
std::string secretIn(const std::string& fileOrValue)
{
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(fileOrValue, ignored)) return fileOrValue;
    std::ifstream file(fileOrValue);
    std::string line;
    std::getline(file, line);
    while (line.ends_with('\r') || line.ends_with(' ')) line.pop_back();
    if (line.empty()) throw CLI::ValidationError("--turn-secret", "the first line of the file is empty");
    return line;
}

std::string relayProblem(const std::string& uri)
{
    const bool isRelay = uri.starts_with("turn:") || uri.starts_with("stun:");
    const bool isPlain = std::ranges::all_of(uri, [](char c) { return c > ' ' && c < '\x7f'; });
    return isRelay && isPlain ? "" : "\"" + uri + "\" is not like turn:relay.example.org:3478";
}

void addLimits(CLI::App& app, Limits& limits)
{
    app.add_option("--connections-per-source", limits.connectionsPerSource,
           "Connections of one IPv4 address or IPv6 /64 network at once")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--requests-per-minute", limits.requestsPerMinute,
           "Requests of one source, and of phones for one host")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--registrations-per-minute", limits.registrationsPerMinute,
           "Registrations of hosts at one source")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
}

std::string brokerProblem(const std::string& url)
{
    const bool isOne = url.starts_with("nats://") || url.starts_with("tls://");
    return isOne ? "" : "\"" + url + "\" is not like nats://broker.example.org:4222";
}

void addCluster(CLI::App& app, NatsBroker::Options& broker)
{
    auto* cluster = app.add_option("--cluster", broker.urls,
        "The brokers where this node meets the others, nats://HOST:PORT or tls://HOST:PORT, separated by "
        "commas");
    cluster->delimiter(',')->check(brokerProblem);
    app.add_option("--cluster-credentials", broker.credentialsFile, "What the broker knows this node by")
        ->needs(cluster)
        ->check(CLI::ExistingFile);
    app.add_option(
           "--cluster-ca", broker.trustFile, "Who vouches for a tls:// broker, PEM, but for the system's")
        ->needs(cluster)
        ->check(CLI::ExistingFile);
}

void addOptions(CLI::App& app, Options& options)
{
    const std::map<std::string, LogLevel> levels{{"debug", LogLevel::debug}, {"info", LogLevel::info},
        {"warning", LogLevel::warning}, {"error", LogLevel::error}};
    app.add_option_function<std::string>(
           "--listen",
           [&options](const std::string& text) {
               const auto address = addressIn(text);
               if (!address) throw CLI::ValidationError("--listen", "\"" + text + "\" is not ADDRESS:PORT");
               options.address = *address;
           },
           "Where, as ADDRESS:PORT")
        ->default_str("[::]:7443");
    auto* certificate = app.add_option("--tls-cert", options.certificateFile, "Certificate chain, PEM");
    auto* key = app.add_option("--tls-key", options.keyFile, "Its private key, PEM");
    certificate->needs(key)->check(CLI::ExistingFile);
    key->needs(certificate)->check(CLI::ExistingFile);
    app.add_flag("--insecure", options.isInsecure, "Without TLS: for tests, and behind a proxy that does it")
        ->excludes(certificate);
    auto* secret = app.add_option("--turn-secret", options.relaySecret,
        "What the service shares with the relays, or a file whose first line it is");
    app.add_option("--turn", options.relays, "A relay, turn:HOST:PORT, or stun:HOST:PORT; repeatable")
        ->check(relayProblem);
    secret->needs(app.get_option("--turn"));
    app.add_option_function<std::vector<std::string>>(
        "--proxy",
        [&options](const std::vector<std::string>& texts) {
            for (const auto& text : texts) {
                const auto address = IPAddress::parse(text);
                if (!address) throw CLI::ValidationError("--proxy", "\"" + text + "\" is no address");
                options.service.proxies.push_back(*address);
            }
        },
        "Address of a proxy whose X-Forwarded-For tells where peers are; repeatable");
    app.add_flag("--status", options.service.showsStatus, "Show figures to anybody, at / and /metrics");
    addCluster(app, options.broker);
    addLimits(app, options.service.limits);
    app.add_option("--log-level", options.logLevel, "debug, info, warning or error")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case));
    app.set_version_flag("--version", "pelorin-rendezvous " PELORIN_VERSION);
}

void checkOptions(const Options& options)
{
    if (!options.isInsecure && options.certificateFile.empty())
        throw CLI::ValidationError("give --tls-cert and --tls-key, or --insecure");
    const bool hasRelay
        = std::ranges::any_of(options.relays, [](const auto& uri) { return uri.starts_with("turn:"); });
    if (hasRelay && options.relaySecret.empty())
        throw CLI::ValidationError("--turn", "relays need --turn-secret");
}

// The service with its sockets. Queue: the one given. Owned by main.
class Running {
public:
    Running(QueueRef queue, std::unique_ptr<EpollSockets> newSockets, std::unique_ptr<Broker> newBroker,
        const Options& options)
        : sockets(std::move(newSockets)),
          broker(std::move(newBroker)),
          service(std::move(queue), *sockets, options.service,
              RelayCredentials(options.relays, secretBytes(options.relaySecret)), PelorinTLS::randomBytes,
              broker.get())
    {
        sockets->serve(service);
    }

    void stop(Task whenAllGone)
    {
        if (std::exchange(isStopping, true)) return;
        service.stop();
        sockets->stop(std::move(whenAllGone));
    }

private:
    static SecretBytes secretBytes(const std::string& text)
    {
        return SecretBytes(ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    }

    std::unique_ptr<EpollSockets> sockets;
    std::unique_ptr<Broker> broker; // none: a service of one node
    Service service;
    bool isStopping = false;
};

// Each connection takes a descriptor.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Must come before the first thread, which inherits it.
sigset_t takeSignals()
{
    std::signal(SIGPIPE, SIG_IGN); // a peer that is gone is an error code
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, quitDone}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

Result<std::unique_ptr<Running>, NetError> start(const QueueRef& queue, const Options& options)
{
    std::shared_ptr<const ServerTls> tls;
    if (!options.certificateFile.empty()) {
        auto loaded = ServerTls::load(options.certificateFile, options.keyFile);
        if (!loaded) return std::unexpected(std::move(loaded.error()));
        tls = std::move(*loaded);
    }
    auto sockets = EpollSockets::listen(queue, options.address, std::move(tls));
    if (!sockets)
        return std::unexpected(NetError{
            fmt::format("cannot listen on {}: {}", options.address.text(), sockets.error().description)});
    Log("rendezvous")
        .info("Listening on {}://{}", options.isInsecure ? "ws" : "wss", (*sockets)->address().text());
    if (options.broker.urls.empty())
        return std::make_unique<Running>(queue, std::move(*sockets), nullptr, options);
    auto broker = NatsBroker::create(queue, options.broker);
    if (!broker) return std::unexpected(std::move(broker.error()));
    return std::make_unique<Running>(queue, std::move(*sockets), std::move(*broker), options);
}

int run(const Options& options)
{
    const sigset_t signals = takeSignals();
    raiseDescriptorLimit();
    QueuePool pool(1);
    const QueueRef queue = pool.makeQueue("dev.pelorin.rendezvous");
    const auto wakeMain = [mainThread = pthread_self()] { pthread_kill(mainThread, quitDone); };
    std::atomic<int> exitCode = 0;
    Confined<Running> running(queue, [&]() -> std::unique_ptr<Running> {
        auto started = start(queue, options);
        if (started) return std::move(*started);
        std::fprintf(stderr, "pelorin-rendezvous: %s\n", started.error().description.c_str());
        exitCode = 1;
        wakeMain();
        return nullptr;
    });
    int signal = 0;
    while (sigwait(&signals, &signal) != 0 || signal != quitDone)
        running.run([&](Running& service) { service.stop(wakeMain); });
    return exitCode;
}

int main(int argumentCount, char** arguments)
{
    CLI::App app(
        "Pelorin rendezvous service: lets phones find and reach hosts from anywhere", "pelorin-rendezvous");
    Options options;
    addOptions(app, options);
    try {
        app.parse(argumentCount, arguments);
        checkOptions(options);
        options.relaySecret = secretIn(options.relaySecret);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    Log::setLevel(options.logLevel);
    return run(options);
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
