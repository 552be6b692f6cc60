// What security costs on the direct path: setting a connection up, carrying video, and coming back ten
// thousand times.
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <ctime>
#include <fstream>
#include <malloc.h>
#include <semaphore>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

constexpr int framesPerSecond = 60;
constexpr std::size_t frameSize = 12'000'000 / 8 / framesPerSecond; // of a stream of 12 Mbit/s
constexpr double motionCores = 0.5; // what the whole host takes for such a stream, screen to socket

enum class Security { none, tls };

// Two ends with a thread each, as host and phone.
class Ends {
public:
    ~Ends()
    {
        onHost([&] {
            host.reset();
            listener.reset();
        });
        onPhone([&] {
            phone.reset();
            connecting.cancel();
        });
    }

    void onHost(Task task) { runOn(hostQueue, std::move(task)); }
    void onPhone(Task task) { runOn(phoneQueue, std::move(task)); }

    // A new connection in place of the one before. Returns when the phone has the host's first byte, with the
    // time since it had the plain connection.
    Duration connect(Security security)
    {
        SteadyTime began;
        std::binary_semaphore isAccepted(0), isConnected(0), hasByte(0);
        onHost([&] {
            listen();
            listener->onConnection = [&](auto accepted) {
                host = security == Security::tls ? PelorinTLS::serverChannel(std::move(accepted), parameters)
                                                 : std::move(accepted);
                host->start(hostQueue);
                host->send(Bytes(1));
                isAccepted.release();
            };
        });
        onPhone([&] {
            connecting
                = connectTcp(phonePool, phoneQueue, "127.0.0.1", listener->port(), 10s, [&](auto made) {
                      phone = std::move(made).value();
                      isConnected.release();
                  });
        });
        isConnected.acquire();
        isAccepted.acquire();
        onPhone([&] {
            began = std::chrono::steady_clock::now();
            if (security == Security::tls) phone = PelorinTLS::clientChannel(std::move(phone), key);
            phone->onBytes = [&](ByteView) {
                phone->onBytes = [](ByteView) {};
                hasByte.release();
            };
            phone->start(phoneQueue);
        });
        hasByte.acquire();
        return std::chrono::steady_clock::now() - began;
    }
    void disconnect()
    {
        onPhone([&] { phone->finish(); });
        onPhone([&] { phone.reset(); });
        onHost([&] { host.reset(); });
    }

    // Connects, receives the host's first byte and goes, so many times, without a pause between.
    void reconnect(int times)
    {
        std::binary_semaphore isDone(0);
        std::function<void()> comeAgain;
        onHost([&] {
            listen();
            listener->onConnection = [&](auto accepted) {
                host = PelorinTLS::serverChannel(std::move(accepted), parameters);
                host->start(hostQueue);
                host->send(Bytes(1));
            };
        });
        onPhone([&] {
            comeAgain = [&] {
                if (times-- == 0) return isDone.release();
                connecting
                    = connectTcp(phonePool, phoneQueue, "127.0.0.1", listener->port(), 10s, [&](auto made) {
                          phone = PelorinTLS::clientChannel(std::move(made).value(), key);
                          phone->onBytes = [&](ByteView) {
                              phone->finish();
                              phoneQueue->post(comeAgain);
                          };
                          phone->start(phoneQueue);
                      });
            };
            comeAgain();
        });
        isDone.acquire();
    }

    // Seconds of processor time that the host's end takes to send a frame at the stream's own pace.
    double secondsPerFrame(Security security, Duration duration)
    {
        connect(security);
        int left = int(duration / 1s) * framesPerSecond;
        const int frames = left;
        std::binary_semaphore isDone(0);
        Subscription pace;
        double before = 0, after = 0;
        onHost([&] {
            before = threadSeconds();
            pace = hostQueue->every(std::chrono::nanoseconds(1s) / framesPerSecond, [&] {
                std::vector<Bytes> parts;
                parts.emplace_back(22); // a frame's head
                parts.emplace_back(frameSize, std::uint8_t(left));
                host->send(std::move(parts), [] {});
                if (--left > 0) return;
                pace.cancel();
                isDone.release();
            });
        });
        isDone.acquire();
        onHost([&] { after = threadSeconds(); });
        disconnect();
        return (after - before) / frames;
    }

private:
    void listen()
    {
        if (!listener) listener = TcpListener::listen(hostPool, hostQueue, "127.0.0.1", 0).value();
    }
    static void runOn(const QueueRef& queue, Task task)
    {
        std::binary_semaphore done(0);
        queue->post([&] {
            task();
            task = nullptr;
            done.release();
        });
        done.acquire();
    }
    static double threadSeconds()
    {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
    }

    const PelorinTLS::Key key = PelorinTLS::randomKey(PelorinTLS::randomIdentity(PelorinTLS::devicePrefix));
    const std::shared_ptr<const PelorinTLS::ServerParameters> parameters = PelorinTLS::parameters({key});
    QueuePool hostPool{1}, phonePool{1};
    const QueueRef hostQueue = hostPool.makeQueue("host"), phoneQueue = phonePool.makeQueue("phone");
    std::unique_ptr<TcpListener> listener;
    Subscription connecting;
    std::unique_ptr<Channel> host, phone;
};

double residentMiB()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024;
    return 0;
}

// From the plain connection to the first byte of the host's on the secure one; an iteration is the median of
// many. Beside it, the same way without TLS.
void tlsHandshake(benchmark::State& state)
{
    Ends ends;
    const auto median = [&](Security security) {
        std::vector<double> seconds;
        for (int i = 0; i < 300; ++i) {
            seconds.push_back(std::chrono::duration<double>(ends.connect(security)).count());
            ends.disconnect();
        }
        std::ranges::nth_element(seconds, seconds.begin() + 150);
        return seconds[150];
    };
    for (auto _ : state) {
        state.SetIterationTime(median(Security::tls));
        state.counters["plain_us"] = median(Security::none) * 1e6;
    }
}
BENCHMARK(tlsHandshake)->UseManualTime()->Iterations(3)->Unit(benchmark::kMicrosecond);

// Processor time of the host's end for a frame; with and without TLS in turn, in the same run.
void tlsVideoFrame(benchmark::State& state)
{
    Ends ends;
    double plain = 0, tls = 0;
    for (auto _ : state) {
        plain += ends.secondsPerFrame(Security::none, 2s);
        const double last = ends.secondsPerFrame(Security::tls, 2s);
        tls += last;
        state.SetIterationTime(last);
    }
    const double frames = double(state.iterations());
    state.counters["plain_us"] = plain / frames * 1e6;
    state.counters["ratio"] = tls / plain;
    state.counters["plain_percent_of_motion"] = plain / frames * framesPerSecond / motionCores * 100;
    state.counters["tls_percent_of_motion"] = tls / frames * framesPerSecond / motionCores * 100;
}
BENCHMARK(tlsVideoFrame)->UseManualTime()->Iterations(2)->Unit(benchmark::kMicrosecond);

// A phone that comes back again and again, each time with a client of its own; an iteration is one
// connection.
void tlsReconnects(benchmark::State& state)
{
    Ends ends;
    ends.reconnect(500); // what grows once has grown
    const double before = residentMiB();
    while (state.KeepRunningBatch(10'000)) ends.reconnect(10'000);
    state.counters["rss_before_MiB"] = before;
    state.counters["rss_after_MiB"] = residentMiB();
}
BENCHMARK(tlsReconnects)->Iterations(10'000)->Repetitions(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Heap that a secured connection at rest holds beyond its transport, at either end; an iteration secures one.
void tlsIdleMemory(benchmark::State& state)
{
    constexpr std::size_t count = 100;
    const auto key = PelorinTLS::randomKey("dev-0123456789abcdef");
    const auto parameters = PelorinTLS::parameters({key});
    ManualQueues queues; // one thread, whose heap can be asked
    const QueueRef queue = queues.makeQueue("both");
    const auto heapKiB = [] { return double(::mallinfo2().uordblks) / 1024; };
    while (state.KeepRunningBatch(count)) {
        std::vector<std::unique_ptr<Channel>> hosts, phones;
        for (std::size_t i = 0; i < count; ++i) {
            auto pair = LoopbackPair::make({});
            hosts.push_back(PelorinTLS::serverChannel(std::move(pair.first), parameters));
            phones.push_back(PelorinTLS::clientChannel(std::move(pair.second), key));
            hosts.back()->start(queue);
            phones.back()->start(queue);
        }
        queues.runReady();
        const double both = heapKiB();
        hosts.clear();
        const double clientsOnly = heapKiB();
        phones.clear();
        state.counters["host_KiB"] = (both - clientsOnly) / count;
        state.counters["phone_KiB"] = (clientsOnly - heapKiB()) / count;
    }
}
BENCHMARK(tlsIdleMemory)->Iterations(100)->Repetitions(1)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
