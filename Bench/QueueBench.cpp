// What a hop between queues and a trip through a channel cost; every input and every frame pays them.
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"

#include <benchmark/benchmark.h>
#include <semaphore>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

void runOn(const QueueRef& queue, Task task)
{
    std::binary_semaphore done(0);
    queue->post([&] {
        task();
        task = nullptr;
        done.release();
    });
    done.acquire();
}

// A ball thrown between two queues; an iteration is one hop.
struct HopBall {
    QueueRef here, there;
    int left;
    std::binary_semaphore& done;

    static void hop(std::shared_ptr<HopBall> ball)
    {
        if (ball->left-- == 0) return ball->done.release();
        std::swap(ball->here, ball->there);
        auto& queue = *ball->here;
        queue.post([ball = std::move(ball)]() mutable { hop(std::move(ball)); });
    }
};

void hopLatency(benchmark::State& state)
{
    QueuePool pool(int(state.range(0)));
    const QueueRef first = pool.makeQueue("first"), second = pool.makeQueue("second");
    constexpr int hops = 1000;
    std::binary_semaphore done(0);
    while (state.KeepRunningBatch(hops)) {
        HopBall::hop(std::make_shared<HopBall>(first, second, hops, done));
        done.acquire();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(hopLatency)->ArgName("threads")->Arg(1)->Arg(2)->Arg(4)->UseRealTime();

// A hop onto an idle queue whose threads sleep, from a thread outside, and back.
void wakeUpLatency(benchmark::State& state)
{
    QueuePool pool(2);
    const QueueRef queue = pool.makeQueue("queue");
    for (auto _ : state) runOn(queue, [] {});
}
BENCHMARK(wakeUpLatency)->UseRealTime();

void postThroughput(benchmark::State& state)
{
    QueuePool pool(2);
    const QueueRef first = pool.makeQueue("first"), second = pool.makeQueue("second");
    constexpr int batch = 10'000;
    std::size_t ran = 0;
    while (state.KeepRunningBatch(batch)) {
        runOn(first, [&] {
            for (int i = 0; i < batch; ++i) second->post([&ran] { ++ran; });
        });
        runOn(second, [] {});
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(postThroughput)->UseRealTime();

// How far behind its due time a timer fires on an idle queue.
void timerLateness(benchmark::State& state)
{
    QueuePool pool(2);
    const QueueRef queue = pool.makeQueue("queue");
    for (auto _ : state) {
        std::binary_semaphore done(0);
        Subscription timer;
        Duration late{};
        runOn(queue, [&] {
            const SteadyTime due = queue->now() + 1ms;
            timer = queue->after(1ms, [&, due] {
                late = queue->now() - due;
                timer = {};
                done.release();
            });
        });
        done.acquire();
        state.SetIterationTime(std::chrono::duration<double>(late).count());
    }
}
BENCHMARK(timerLateness)->UseManualTime()->Iterations(500);

void manualTimers(benchmark::State& state)
{
    for (auto _ : state) {
        ManualQueues queues;
        const QueueRef queue = queues.makeQueue("queue");
        std::vector<Subscription> timers;
        for (int i = 0; i < 100'000; ++i) timers.push_back(queue->after(15s, [] {}));
        queues.advance(15s);
    }
}
BENCHMARK(manualTimers)->Unit(benchmark::kMillisecond);

// Two channels with their queues, over real TCP or in memory.
struct Ends {
    explicit Ends(bool isTcp) : pool(2), near(pool.makeQueue("near")), far(pool.makeQueue("far"))
    {
        isTcp ? connect() : join();
    }
    ~Ends()
    {
        runOn(near, [&] { first.reset(); });
        runOn(far, [&] { second.reset(); });
    }
    void connect()
    {
        std::counting_semaphore<2> done(0);
        std::unique_ptr<TcpListener> listener;
        Subscription connecting;
        runOn(near, [&] {
            listener = TcpListener::listen(pool, near, "127.0.0.1", 0).value();
            listener->onConnection = [&](auto channel) {
                second = std::move(channel);
                done.release();
            };
            connecting = connectTcp(pool, near, "127.0.0.1", listener->port(), 5s, [&](auto channel) {
                first = std::move(channel).value();
                done.release();
            });
        });
        done.acquire();
        done.acquire();
        runOn(near, [&] {
            listener.reset();
            connecting = {};
        });
    }
    void join()
    {
        auto pair = LoopbackPair::make({});
        first = std::move(pair.first);
        second = std::move(pair.second);
    }
    QueuePool pool;
    QueueRef near, far;
    std::unique_ptr<Channel> first, second;
};

void channelRoundTrip(benchmark::State& state)
{
    Ends ends(state.range(0) != 0);
    constexpr int trips = 100;
    std::binary_semaphore done(0);
    int left = 0;
    runOn(ends.far, [&] {
        ends.second->onBytes = [&](ByteView bytes) { ends.second->send(Bytes(bytes.begin(), bytes.end())); };
        ends.second->start(ends.far);
    });
    runOn(ends.near, [&] {
        ends.first->onBytes = [&](ByteView) { --left == 0 ? done.release() : ends.first->send(Bytes(16)); };
        ends.first->start(ends.near);
    });
    while (state.KeepRunningBatch(trips)) {
        runOn(ends.near, [&] {
            left = trips;
            ends.first->send(Bytes(16));
        });
        done.acquire();
    }
}
BENCHMARK(channelRoundTrip)->ArgName("tcp")->Arg(1)->Arg(0)->UseRealTime();

// Frames of 100 KB with two sends in flight, as a video stream makes them.
void channelThroughput(benchmark::State& state)
{
    Ends ends(state.range(0) != 0);
    constexpr std::size_t frame = 100'000;
    constexpr int frames = 100;
    std::binary_semaphore done(0);
    std::size_t awaited = 0;
    int toSend = 0;
    runOn(ends.far, [&] {
        ends.second->onBytes = [&](ByteView bytes) {
            awaited -= bytes.size();
            if (awaited == 0) done.release();
        };
        ends.second->start(ends.far);
    });
    runOn(ends.near, [&] { ends.first->start(ends.near); });
    std::function<void()> sendNext = [&] {
        if (toSend-- > 0) ends.first->send(Bytes(frame), [&] { sendNext(); });
    };
    while (state.KeepRunningBatch(frames)) {
        awaited = frames * frame;
        runOn(ends.near, [&] {
            toSend = frames;
            sendNext();
            sendNext();
        });
        done.acquire();
    }
    state.SetBytesProcessed(state.iterations() * frame);
}
BENCHMARK(channelThroughput)->ArgName("tcp")->Arg(1)->Arg(0)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
