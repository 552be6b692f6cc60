// What a host costs a node of the rendezvous service and its broker, plain and over TLS, and what a phone's
// request costs one node, alone and beside idle hosts, and three, as JSON. Arguments: hosts, requests, and
// the sections wanted, by their names in the JSON, if not all. Peers run in this process, so rates are those
// of a machine that does both; the processor time of service and broker is theirs alone.

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/OwnedDescriptor.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/NatsServer.h"
#include "Tests/Lab/RendezvousService.h"
#include "Tests/Lab/Wait.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <fmt/format.h>
#include <mutex>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin {
namespace {
using nlohmann::json;

constexpr std::size_t crowd = 64; // so many requests are under way at once
constexpr int timedRegistrations = 4'000;
constexpr std::size_t registeringAtOnce = 16; // hosts that come back when their service does
constexpr rlim_t descriptors = 100'000;

struct TlsFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* tls) const { SSL_free(tls); }
};
using TlsContext = std::unique_ptr<SSL_CTX, TlsFree>;

// A blocking WebSocket client with no more than messages under 64 KiB; over TLS with a context.
class Line {
public:
    Line(std::uint16_t port, const std::string& target, SSL_CTX* context = nullptr)
        : descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int yes = 1;
        ::setsockopt(descriptor.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        const linger atOnce{1, 0}; // no port is kept waiting after its use
        ::setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        require(::connect(descriptor.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
            "the service takes a connection");
        if (context) {
            tls.reset(SSL_new(context));
            SSL_set_fd(tls.get(), descriptor.get());
            require(SSL_connect(tls.get()) == 1, "a TLS handshake");
        }
        write(
            fmt::format("GET {} HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n",
                target));
        while (received.find("\r\n\r\n") == received.npos) receive();
        require(received.starts_with("HTTP/1.1 101"), received.c_str());
        received.erase(0, received.find("\r\n\r\n") + 4);
    }
    Line(Line&&) = default;

    int get() const { return descriptor.get(); }

    void say(const std::string& text)
    {
        std::string frame{'\x81'};
        if (text.size() < 126)
            frame += static_cast<char>(0x80 | text.size());
        else
            frame += {'\xFE', static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)};
        write(frame + std::string(4, '\0') + text); // a mask of zeros
    }

    std::string hearText()
    {
        while (true) {
            if (auto text = take()) return *text;
            receive();
        }
    }
    json hear() { return json::parse(hearText()); }
    bool hasMore() const { return !received.empty(); }

private:
    void write(const std::string& bytes)
    {
        const auto sent = tls ? SSL_write(tls.get(), bytes.data(), static_cast<int>(bytes.size()))
                              : ::send(get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        require(sent == static_cast<ssize_t>(bytes.size()), "the service reads");
    }
    void receive()
    {
        std::array<char, 4096> buffer;
        const auto count = tls ? SSL_read(tls.get(), buffer.data(), static_cast<int>(buffer.size()))
                               : ::recv(get(), buffer.data(), buffer.size(), 0);
        require(count > 0, "the service goes on");
        received.append(buffer.data(), static_cast<std::size_t>(count));
    }
    std::optional<std::string> take()
    {
        const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(received[i]); };
        if (received.size() < 2) return std::nullopt;
        std::size_t size = byteAt(1);
        std::size_t start = 2;
        if (size == 126) {
            if (received.size() < 4) return std::nullopt;
            size = static_cast<std::size_t>(byteAt(2)) << 8 | byteAt(3);
            start = 4;
        }
        if (received.size() < start + size) return std::nullopt;
        std::string text = received.substr(start, size);
        received.erase(0, start + size);
        return text;
    }

    OwnedDescriptor descriptor;
    std::unique_ptr<SSL, TlsFree> tls; // goes before the descriptor
    std::string received;
};

struct Host {
    Line line;
    std::string id;
};

Host registeredHost(std::uint16_t port, SSL_CTX* context = nullptr)
{
    const SigningKey key = SigningKey::generate().value();
    Host host{Line(port, "/v1/host", context), KeyFingerprint::hostID(key.publicKey())};
    const auto text
        = fmt::format("pelorin-host-v1|{}|{}", host.id, host.line.hear()["nonce"].get<std::string>());
    host.line.say(json{{"type", "register"}, {"publicKey", base64EncodedString(key.publicKey())},
        {"signature", base64EncodedString(key.signRaw(Bytes(text.begin(), text.end())).value())},
        {"name", "Studio"}}
            .dump());
    require(host.line.hear()["type"] == "registered", "a host registers");
    return host;
}

// Hosts that accept whoever asks, on a thread of their own.
class AcceptingHosts {
public:
    explicit AcceptingHosts(std::vector<Host>& newHosts)
        : hosts(newHosts),
          poller(::epoll_create1(EPOLL_CLOEXEC)),
          thread([this](const std::stop_token& stop) { run(stop); })
    {
        for (std::size_t i = 0; i < hosts.size(); ++i) {
            epoll_event event{.events = EPOLLIN, .data = {.u64 = i}};
            ::epoll_ctl(poller.get(), EPOLL_CTL_ADD, hosts[i].line.get(), &event);
        }
    }

private:
    void run(const std::stop_token& stop)
    {
        std::array<epoll_event, 64> events;
        while (!stop.stop_requested()) {
            const int count = ::epoll_wait(poller.get(), events.data(), events.size(), 100);
            for (int i = 0; i < count; ++i) serve(hosts[events[i].data.u64].line);
        }
    }
    static void serve(Line& line)
    {
        do {
            const json message = line.hear();
            if (message["type"] != "connect") continue;
            line.say(json{{"type", "accept"}, {"session", message["session"]}, {"response", {{"ufrag", "u"}}}}
                    .dump());
        } while (line.hasMore());
    }

    std::vector<Host>& hosts;
    OwnedDescriptor poller;
    std::jthread thread;
};

// One request from the first byte to the host's acceptance; milliseconds.
double ask(std::uint16_t port, const std::string& hostID, const std::string& request)
{
    const auto start = std::chrono::steady_clock::now();
    Line line(port, "/v1/connect/" + hostID);
    require(line.hear()["online"] == true, "the host is found");
    line.say(request);
    require(line.hear()["type"] == "accept", "the host accepts");
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double processorSeconds(const lab::Process& process)
{
    const std::string stat = lab::contentOf(fmt::format("/proc/{}/stat", process.pid()));
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    double user = 0;
    double system = 0;
    for (int i = 0; i < 11; ++i) fields >> skipped; // after the name, up to utime
    fields >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::unique_ptr<lab::RendezvousService> startNode(
    const lab::NatsServer* broker, lab::RendezvousService::Options options = {})
{
    options.logLevel = "info";
    for (const char* limit :
        {"--connections-per-source", "--requests-per-minute", "--registrations-per-minute"})
        options.more.insert(options.more.end(), {limit, "1000000"});
    if (broker) options.more.insert(options.more.end(), {"--cluster", broker->url()});
    auto node = std::make_unique<lab::RendezvousService>(options);
    if (broker)
        require(
            lab::eventually([&] { return node->log().contains("The broker is in reach"); }), "the broker");
    return node;
}

long kernelKiB() // of which sockets are made
{
    const std::string text = lab::contentOf("/proc/meminfo");
    return std::atol(text.c_str() + text.find("Slab:") + 5);
}

void ping(std::vector<Host>& hosts)
{
    for (Host& host : hosts) host.line.say("ping");
    for (Host& host : hosts) require(host.line.hearText() == "pong", "a ping is answered");
}

// Processor time of the node for each, microseconds. Their lines stay in hosts.
double registerHosts(int count, std::size_t threads, const lab::RendezvousService& node,
    std::vector<Host>& hosts, SSL_CTX* context)
{
    const double before = processorSeconds(node.process());
    std::atomic<int> next = 0;
    std::mutex lock; // of hosts
    const auto work = [&] {
        while (next++ < count) {
            Host host = registeredHost(node.port(), context);
            const std::lock_guard guard(lock);
            hosts.push_back(std::move(host));
        }
    };
    lab::atOnce(std::vector<std::function<void()>>(threads, work));
    return (processorSeconds(node.process()) - before) * 1e6 / count;
}

// What an idle host costs in memory, KiB, and what it took to register.
json idleHosts(
    int count, const lab::RendezvousService& node, std::vector<Host>& hosts, SSL_CTX* context = nullptr)
{
    auto& process = node.process();
    {
        const Host first = registeredHost(node.port(), context);
    } // what is made once
    const long before = process.residentKiB();
    const long kernelBefore = kernelKiB();
    const double alone = registerHosts(std::min(count, timedRegistrations), 1, node, hosts, context);
    double crowded = 0;
    while (static_cast<int>(hosts.size()) < count) {
        const int missing = count - static_cast<int>(hosts.size());
        crowded
            = registerHosts(std::min(missing, timedRegistrations), registeringAtOnce, node, hosts, context);
        ping(hosts); // the first must not be silent for a minute
    }
    std::this_thread::sleep_for(std::chrono::seconds(2)); // the broker's share is granted behind
    json result{{"nodeKiBPerHost", static_cast<double>(process.residentKiB() - before) / count},
        {"kernelKiBPerSocket", static_cast<double>(kernelKiB() - kernelBefore) / (2 * count)},
        {"nodeProcessorMicrosPerRegistration", alone},
        {"nodeProcessorMicrosPerRegistrationInACrowd", crowded}};
    const double processorBeforePings = processorSeconds(process);
    ping(hosts);
    result["nodeProcessorMicrosPerPing"] = (processorSeconds(process) - processorBeforePings) * 1e6 / count;
    return result;
}

json idleInCluster(int count)
{
    const lab::NatsServer broker;
    const auto node = startNode(&broker);
    const long before = broker.process().residentKiB();
    std::vector<Host> hosts;
    json result = idleHosts(count, *node, hosts);
    result["brokerKiBPerHost"] = static_cast<double>(broker.process().residentKiB() - before) / count;
    return result;
}

json idleOverTLS(int count)
{
    const lab::TemporaryFolder folder;
    const auto key = (folder.path() / "key.pem").string();
    const auto chain = (folder.path() / "chain.pem").string();
    lab::outputOf({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-keyout", key, "-out", chain, "-days", "2", "-subj", "/CN=localhost"});
    const auto node = startNode(nullptr, {.certificate = chain, .key = key});
    const TlsContext context(SSL_CTX_new(TLS_client_method()));
    std::vector<Host> hosts;
    return idleHosts(count, *node, hosts, context.get());
}

double quantile(std::vector<double>& values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// Phones come to any node, so many at once; the part of them whose host is there, too, is as it falls.
json requests(int count, std::size_t nodeCount, std::size_t phoneThreads, int idleCount = 0)
{
    std::optional<lab::NatsServer> broker;
    if (nodeCount > 1) broker.emplace();
    std::vector<std::unique_ptr<lab::RendezvousService>> nodes;
    for (std::size_t i = 0; i < nodeCount; ++i) nodes.push_back(startNode(broker ? &*broker : nullptr));
    std::vector<Host> idle;
    json result;
    if (idleCount > 0) result["idle"] = idleHosts(idleCount, *nodes[0], idle);
    std::vector<Host> hosts;
    for (int i = 0; i < 300; ++i) hosts.push_back(registeredHost(nodes[i % nodeCount]->port()));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const AcceptingHosts accepting(hosts);
    // As large as a phone's with a dozen candidates.
    const std::string request
        = json{{"type", "connect"}, {"request", {{"content", std::string(1200, 'x')}}}}.dump();

    std::vector<double> before;
    for (const auto& node : nodes) before.push_back(processorSeconds(node->process()));
    const double brokerBefore = broker ? processorSeconds(broker->process()) : 0;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::vector<double>> times(phoneThreads);
    std::atomic<int> next = 0;
    std::vector<std::function<void()>> works;
    for (auto& own : times)
        works.emplace_back([&] {
            for (int i = next++; i < count; i = next++) {
                const auto& node = *nodes[static_cast<std::size_t>(i) % nodeCount];
                const auto& host = hosts[static_cast<std::size_t>(i) / nodeCount % hosts.size()];
                own.push_back(ask(node.port(), host.id, request));
            }
        });
    lab::atOnce(works);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    double busiest = 0;
    double all = 0;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const double used = processorSeconds(nodes[i]->process()) - before[i];
        busiest = std::max(busiest, used);
        all += used;
    }
    std::vector<double> joined;
    for (const auto& own : times) joined.insert(joined.end(), own.begin(), own.end());
    result["nodes"] = nodeCount;
    result["atOnce"] = phoneThreads;
    result["requestsPerSecond"] = count / seconds;
    result["p50Ms"] = quantile(joined, 0.5);
    result["p99Ms"] = quantile(joined, 0.99);
    result["p999Ms"] = quantile(joined, 0.999);
    result["nodesProcessorMicrosPerRequest"] = all * 1e6 / count;
    result["busiestNodeProcessorMicrosPerRequest"] = busiest * 1e6 / count;
    if (broker)
        result["brokerProcessorMicrosPerRequest"]
            = (processorSeconds(broker->process()) - brokerBefore) * 1e6 / count;
    return result;
}

int main(int argumentCount, char** arguments)
{
    const int hosts = argumentCount > 1 ? std::atoi(arguments[1]) : 20'000;
    const int requestCount = argumentCount > 2 ? std::atoi(arguments[2]) : 20'000;
    rlimit limit{descriptors, descriptors};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) { // without privileges: as many as there may be
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    const std::vector<std::string> wanted(arguments + std::min(argumentCount, 3), arguments + argumentCount);
    const std::pair<const char*, std::function<json()>> sections[]{
        {"besideIdleHosts", [&] { return requests(requestCount, 1, 4, hosts); }},
        {"idleOverTLS", [&] { return idleOverTLS(hosts); }},
        {"idleInCluster", [&] { return idleInCluster(hosts); }},
        {"oneNode", [&] { return requests(requestCount, 1, crowd); }},
        {"threeNodes", [&] { return requests(requestCount, 3, crowd); }},
    };
    json result;
    for (const auto& [name, measure] : sections)
        if (wanted.empty() || std::ranges::find(wanted, name) != wanted.end()) result[name] = measure();
    fmt::print("{}\n", result.dump(2));
    return 0;
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
