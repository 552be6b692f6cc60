// What the way through the proxy costs, beside the plainest forwarder there is; and what a datagram from
// anybody costs that claims to be STUN.
#include "PelorinNet/Path/DatagramProxy.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <benchmark/benchmark.h>
#include <semaphore>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t datagramSize = DatagramProxy::largestDatagram;
constexpr std::size_t perRound = 900; // what the receive buffer of 4 MiB holds when they come one by one
constexpr int rounds = 100;

double secondsSince(SteadyTime began)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

SocketAddress loopback(std::uint16_t port)
{
    return SocketAddress::ipv4({127, 0, 0, 1}, port);
}

// A socket of the system, with nothing of ours around it.
class PlainSocket {
public:
    PlainSocket() : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        const int bytes = 4 << 20;
        for (const int option : {SO_RCVBUFFORCE, SO_SNDBUFFORCE})
            ::setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof bytes);
        sockaddr_in own = system(loopback(0));
        ::bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own);
        socklen_t size = sizeof own;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
        address = loopback(ntohs(own.sin_port));
    }
    ~PlainSocket() { ::close(fd); }

    bool send(ByteView bytes, const SocketAddress& to) const
    {
        const auto target = system(to);
        return ::sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&target),
                   sizeof target)
            >= 0;
    }
    ssize_t receive(Bytes& into) const
    {
        return ::recvfrom(fd, into.data(), into.size(), 0, nullptr, nullptr);
    }
    std::size_t drain()
    {
        std::size_t count = 0;
        while (receive(buffer) >= 0) ++count;
        return count;
    }

    SocketAddress address;

private:
    static sockaddr_in system(const SocketAddress& from)
    {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_port = htons(from.port);
        result.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return result;
    }

    const int fd;
    Bytes buffer = Bytes(65'536);
};

enum class Arrival { merged, single };

// Lays a round of datagrams ready at a forwarder's socket, has them forwarded, and takes them away again.
// Only the forwarding is timed.
class Course {
public:
    double proxySeconds(Arrival arrival)
    {
        proxy->path = DatagramProxy::Path::direct(sink.address);
        return seconds(arrival, proxy->local().localAddress(), [&] { queues.runReady(); });
    }
    double plainSeconds(Arrival arrival)
    {
        return seconds(arrival, plain.address, [&] {
            for (ssize_t size; (size = plain.receive(buffer)) >= 0;)
                plain.send(ByteView(buffer).first(std::size_t(size)), sink.address);
        });
    }
    std::size_t lost() const { return lostCount; }

private:
    double seconds(Arrival arrival, const SocketAddress& forwarder, const std::function<void()>& forward)
    {
        auto& source = arrival == Arrival::merged ? mergingSource : singleSource;
        std::vector<double> times;
        for (int round = 0; round < rounds; ++round) {
            for (std::size_t i = 0; i < perRound; ++i) source->enqueue({}, datagram, {}, forwarder);
            source->flush();
            // By the wall clock: what the kernel does on the way is not all counted as the thread's.
            const auto began = std::chrono::steady_clock::now();
            forward();
            times.push_back(secondsSince(began) / perRound);
            lostCount += perRound - sink.drain();
        }
        return median(std::move(times));
    }

    ManualQueues queues; // everything on this thread: nothing but the work itself is counted
    const QueueRef queue = queues.makeQueue("dev.pelorin.path");
    const std::unique_ptr<DatagramProxy> proxy = DatagramProxy::open(queue).value();
    const Bytes datagram = Bytes(datagramSize, 0x40);
    // As QUIC sends, and as a sender that cannot merge.
    const std::unique_ptr<UDPSocket> mergingSource = UDPSocket::open("127.0.0.1", 0, queue).value();
    const std::unique_ptr<UDPSocket> singleSource
        = UDPSocket::open("127.0.0.1", 0, queue, {.merging = false}).value();
    PlainSocket plain, sink;
    Bytes buffer = Bytes(65'536);
    std::size_t lostCount = 0;
};

// The time that one thread takes for a datagram's way out; the plain recvfrom and sendto beside it, in turn.
void proxyForwarding(benchmark::State& state, Arrival arrival)
{
    Course course;
    double plain = 0, proxy = 0;
    for (auto _ : state) {
        plain += course.plainSeconds(arrival);
        const double last = course.proxySeconds(arrival);
        proxy += last;
        state.SetIterationTime(last * rounds * perRound);
        if (course.lost() > 0) state.SkipWithError("datagrams were lost on the way");
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(rounds * perRound));
    state.counters["plain_us"] = plain / double(state.iterations()) * 1e6;
    state.counters["proxy_us"] = proxy / double(state.iterations()) * 1e6;
    state.counters["ratio"] = plain / proxy;
}
BENCHMARK_CAPTURE(proxyForwarding, merged, Arrival::merged)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(proxyForwarding, single, Arrival::single)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// From a datagram's sending to its arrival, through a proxy on a thread that sleeps between, less the same
// without it; medians. The receiver does not sleep.
void proxyDelay(benchmark::State& state)
{
    QueuePool pool(1);
    const QueueRef queue = pool.makeQueue("dev.pelorin.path");
    PlainSocket source, sink;
    std::unique_ptr<DatagramProxy> proxy;
    std::binary_semaphore done(0);
    queue->post([&] {
        proxy = DatagramProxy::open(queue).value();
        proxy->path = DatagramProxy::Path::direct(sink.address);
        done.release();
    });
    done.acquire();
    const Bytes datagram(datagramSize, 0x40);
    Bytes buffer(65'536);
    const auto seconds = [&](const SocketAddress& to) {
        std::this_thread::sleep_for(500us); // let the proxy's thread fall asleep
        const auto began = std::chrono::steady_clock::now();
        source.send(datagram, to);
        while (sink.receive(buffer) < 0) {}
        return secondsSince(began);
    };
    constexpr std::size_t count = 1'000;
    for (auto _ : state) {
        std::vector<double> direct, through;
        for (std::size_t i = 0; i < count; ++i) {
            direct.push_back(seconds(sink.address));
            through.push_back(seconds(proxy->local().localAddress()));
        }
        state.SetIterationTime(median(through) - median(direct));
        state.counters["direct_us"] = median(direct) * 1e6;
    }
    queue->post([&] {
        proxy.reset();
        done.release();
    });
    done.acquire();
}
BENCHMARK(proxyDelay)->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

// Sends small datagrams to one address, as many a second as are asked for: half of them nothing at all, half
// checks with a wrong password. On a thread of its own, from many ports.
class Flood {
public:
    Flood(const SocketAddress& to, double perSecond) : thread([this, to, perSecond] { run(to, perSecond); })
    {
    }
    ~Flood()
    {
        isEnding = true;
        thread.join();
    }
    std::int64_t sent() const { return sentCount; }

private:
    void run(const SocketAddress& to, double perSecond)
    {
        constexpr std::size_t burst = 64;
        ManualQueues queues;
        const QueueRef queue = queues.makeQueue("flood");
        std::vector<std::unique_ptr<UDPSocket>> sockets;
        for (int i = 0; i < 16; ++i)
            sockets.push_back(UDPSocket::open("127.0.0.1", 0, queue, {.merging = false}).value());
        const Bytes noise(44, 0x40), check = StunMessage{}.serialize(noise);
        const auto began = std::chrono::steady_clock::now();
        for (std::size_t round = 0; !isEnding; ++round) {
            auto& socket = *sockets[round % sockets.size()];
            for (std::size_t i = 0; i < burst; ++i) socket.enqueue({}, i % 2 ? noise : check, {}, to);
            socket.flush();
            sentCount += burst;
            while (double(sentCount) > secondsSince(began) * perSecond && !isEnding)
                std::this_thread::sleep_for(50us);
        }
    }

    std::atomic<bool> isEnding = false;
    std::atomic<std::int64_t> sentCount = 0;
    std::thread thread;
};

// A session's traffic through the proxy while strangers send 200,000 datagrams a second to it: what of it
// gets lost, and how long the rest takes. Every datagram that claims to be a check is verified.
void proxyUnderFlood(benchmark::State& state)
{
    QueuePool pool(1);
    const QueueRef queue = pool.makeQueue("dev.pelorin.path");
    PlainSocket peer, quic;
    std::unique_ptr<DatagramProxy> proxy;
    std::atomic<std::int64_t> strange = 0;
    std::binary_semaphore done(0);
    const Bytes key(24, 'k');
    queue->post([&] {
        proxy = DatagramProxy::open(queue).value();
        proxy->quicEndpoint = quic.address;
        proxy->validatedPeers.insert(peer.address);
        proxy->onOtherDatagram = [&](ByteView bytes, const SocketAddress&) {
            ++strange;
            benchmark::DoNotOptimize(StunMessage::verifyIntegrity(bytes, key));
        };
        done.release();
    });
    done.acquire();
    const SocketAddress to = loopback(proxy->network().localAddress().port);
    Bytes datagram(datagramSize, 0x40), buffer(65'536);
    constexpr auto duration = 3s;
    constexpr auto interval = 600us; // of a stream of some 18 Mbit/s
    for (auto _ : state) {
        std::vector<double> delays;
        std::size_t sent = 0;
        strange = 0;
        Flood flood(to, 200'000);
        const auto began = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - began < duration) {
            const auto start = std::chrono::steady_clock::now();
            peer.send(datagram, to);
            ++sent;
            while (std::chrono::steady_clock::now() - start < interval) {
                if (quic.receive(buffer) >= 0) delays.push_back(secondsSince(start));
                std::this_thread::yield();
            }
        }
        const double seconds = secondsSince(began);
        std::this_thread::sleep_for(100ms);
        const std::size_t arrived = delays.size() + quic.drain();
        state.SetIterationTime(seconds);
        state.SetItemsProcessed(flood.sent());
        state.counters["lost_percent_of_session"] = 100.0 * double(sent - arrived) / double(sent);
        state.counters["strange_percent_of_flood"] = 100.0 * double(strange) / double(flood.sent());
        state.counters["delay_us"] = median(delays) * 1e6;
    }
    queue->post([&] {
        proxy.reset();
        done.release();
    });
    done.acquire();
}
BENCHMARK(proxyUnderFlood)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

// A connectivity check as it arrives: read whole, and its integrity verified.
void stunCheck(benchmark::State& state)
{
    const std::string_view password = "VOkJxbRl1RmTxUk/WvJxBtab";
    const Bytes key(password.begin(), password.end());
    StunMessage check;
    check.transactionID = StunMessage::newTransactionID();
    check.attributes.emplace_back(StunMessage::AttributeType::username, "abcdefgh:ijklmnop");
    const Bytes datagram = check.serialize(key);
    for (auto _ : state) {
        const auto message = StunMessage::parse(datagram);
        const bool isGenuine = StunMessage::verifyIntegrity(datagram, key);
        if (!message || !isGenuine) state.SkipWithError("our own check is refused");
        benchmark::DoNotOptimize(message->attributes.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(stunCheck);

} // namespace

BENCHMARK_MAIN();
