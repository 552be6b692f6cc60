// What a host costs a node of the rendezvous service and its broker, and what a phone's request costs one
// node and three, as JSON. Arguments: hosts, requests. Peers run in this process, so rates are those of a
// machine that does both; the processor time of service and broker is theirs alone.

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
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin {
namespace {
using nlohmann::json;

constexpr int phoneThreads = 64; // so many requests are under way at once

// A blocking WebSocket client with no more than messages under 64 KiB.
class Line {
public:
    Line(std::uint16_t port, const std::string& target)
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
        require(::send(get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
            "the service reads");
    }
    void receive()
    {
        std::array<char, 4096> buffer;
        const auto count = ::recv(get(), buffer.data(), buffer.size(), 0);
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
    std::string received;
};

struct Host {
    Line line;
    std::string id;
};

Host registeredHost(std::uint16_t port)
{
    const SigningKey key = SigningKey::generate().value();
    Host host{Line(port, "/v1/host"), KeyFingerprint::hostID(key.publicKey())};
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

std::unique_ptr<lab::RendezvousService> startNode(const lab::NatsServer* broker)
{
    lab::RendezvousService::Options options;
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

// Of memory, KiB for each idle host; and how many registered in a second.
json idleHosts(int count, bool hasBroker)
{
    std::optional<lab::NatsServer> broker;
    if (hasBroker) broker.emplace();
    const auto node = startNode(broker ? &*broker : nullptr);
    {
        const Host first = registeredHost(node->port());
    } // what is made once
    const long before = node->process().residentKiB();
    const long brokerBefore = broker ? broker->process().residentKiB() : 0;
    const double processorBefore = processorSeconds(node->process());
    const auto start = std::chrono::steady_clock::now();
    std::vector<Host> hosts;
    for (int i = 0; i < count; ++i) hosts.push_back(registeredHost(node->port()));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::this_thread::sleep_for(std::chrono::seconds(2)); // the broker's share is granted behind
    json result{{"nodeKiBPerHost", static_cast<double>(node->process().residentKiB() - before) / count},
        {"registrationsPerSecond", count / seconds},
        {"nodeProcessorMicrosPerRegistration",
            (processorSeconds(node->process()) - processorBefore) * 1e6 / count}};
    const double processorBeforePings = processorSeconds(node->process());
    for (Host& host : hosts) host.line.say("ping");
    for (Host& host : hosts) require(host.line.hearText() == "pong", "a ping is answered");
    result["nodeProcessorMicrosPerPing"]
        = (processorSeconds(node->process()) - processorBeforePings) * 1e6 / count;
    if (broker)
        result["brokerKiBPerHost"]
            = static_cast<double>(broker->process().residentKiB() - brokerBefore) / count;
    return result;
}

double quantile(std::vector<double>& values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

// Phones come to any node; the part of them whose host is there, too, is as it falls.
json requests(int count, std::size_t nodeCount)
{
    std::optional<lab::NatsServer> broker;
    if (nodeCount > 1) broker.emplace();
    std::vector<std::unique_ptr<lab::RendezvousService>> nodes;
    for (std::size_t i = 0; i < nodeCount; ++i) nodes.push_back(startNode(broker ? &*broker : nullptr));
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
    std::array<std::vector<double>, phoneThreads> times;
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
    json result{{"nodes", nodeCount}, {"requestsPerSecond", count / seconds},
        {"p50Ms", quantile(joined, 0.5)}, {"p99Ms", quantile(joined, 0.99)},
        {"nodesProcessorMicrosPerRequest", all * 1e6 / count},
        {"busiestNodeProcessorMicrosPerRequest", busiest * 1e6 / count}};
    if (broker)
        result["brokerProcessorMicrosPerRequest"]
            = (processorSeconds(broker->process()) - brokerBefore) * 1e6 / count;
    return result;
}

int main(int argumentCount, char** arguments)
{
    const int hosts = argumentCount > 1 ? std::atoi(arguments[1]) : 20'000;
    const int requestCount = argumentCount > 2 ? std::atoi(arguments[2]) : 20'000;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const json result{{"idleAlone", idleHosts(hosts, false)}, {"idleInCluster", idleHosts(hosts, true)},
        {"oneNode", requests(requestCount, 1)}, {"threeNodes", requests(requestCount, 3)}};
    fmt::print("{}\n", result.dump(2));
    return 0;
}

} // namespace
} // namespace pelorin

int main(int argumentCount, char** arguments)
{
    return pelorin::main(argumentCount, arguments);
}
