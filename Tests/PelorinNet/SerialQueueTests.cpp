#include "Tests/PelorinNet/QueueHarness.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe(ends.data()), 0); }
    ~Pipe()
    {
        ::close(ends[0]);
        closeWriter();
    }
    void write(std::string_view text) const
    {
        EXPECT_EQ(::write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    }
    char readOne() const
    {
        char byte = 0;
        EXPECT_EQ(::read(ends[0], &byte, 1), 1);
        return byte;
    }
    void closeWriter()
    {
        if (ends[1] >= 0) ::close(ends[1]);
        ends[1] = -1;
    }
    std::array<int, 2> ends{};
};

template <class Harness>
class AnyQueue : public testing::Test {
protected:
    Harness harness;
    QueueRef queue = harness.makeQueue();

    void runOn(Task task) { harness.runOn(queue, std::move(task)); }
    bool waitUntil(const std::function<bool()>& condition) { return harness.waitUntil(queue, condition); }
};

using Kinds = testing::Types<PoolHarness, ManualHarness>;
TYPED_TEST_SUITE(AnyQueue, Kinds);

} // namespace

TYPED_TEST(AnyQueue, runsTasksInTheOrderOfTheirPosting)
{
    std::vector<int> order;
    this->runOn([&] {
        for (int i = 0; i < 1000; ++i) {
            this->queue->post([&order, i] { order.push_back(i); });
            if (i % 100 == 0) std::this_thread::yield();
        }
        EXPECT_TRUE(order.empty()) << "posted tasks never run inside post";
    });
    ASSERT_TRUE(this->waitUntil([&] { return order.size() == 1000; }));
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TYPED_TEST(AnyQueue, knowsWhetherTheCallerIsOnIt)
{
    const QueueRef other = this->harness.makeQueue("dev.pelorin.other");
    bool onOwn = false, onOther = true;
    this->runOn([&] {
        onOwn = this->queue->isCurrent();
        onOther = other->isCurrent();
    });
    EXPECT_TRUE(onOwn);
    EXPECT_FALSE(onOther);
    EXPECT_EQ(other->label(), "dev.pelorin.other");
    std::thread([&] { EXPECT_FALSE(this->queue->isCurrent()); }).join();
}

TYPED_TEST(AnyQueue, firesTimersInOrderOfDueTimeAndNeverEarly)
{
    struct Fired {
        SteadyTime dueFrom, dueTo, at; // the due time lies between: a busy machine may stall us while we ask
    };
    std::vector<Fired> order;
    std::vector<Subscription> timers;
    this->runOn([&] {
        for (const auto delay : {9ms, 3ms, 0ms, 6ms, -4ms, 3ms}) {
            const SteadyTime before = this->queue->now();
            const auto after = std::make_shared<SteadyTime>();
            timers.push_back(this->queue->after(delay, [&, before, after, delay] {
                order.push_back({before + delay, *after + delay, this->queue->now()});
            }));
            *after = this->queue->now();
        }
    });
    ASSERT_TRUE(this->waitUntil([&] { return order.size() == 6; }));
    for (std::size_t i = 0; i < order.size(); ++i) {
        EXPECT_GE(order[i].at, order[i].dueFrom);
        for (std::size_t later = i + 1; later < order.size(); ++later)
            EXPECT_LE(order[i].dueFrom, order[later].dueTo) << i << " fired before " << later;
    }
    this->runOn([&] { timers.clear(); });
}

TYPED_TEST(AnyQueue, neverFiresATimerCancelledAfterItCameDue)
{
    bool fired = false, done = false;
    Subscription first, second, third;
    this->runOn([&] {
        // All are due at once or nearly so: the first finds the second waiting behind it.
        first = this->queue->after(0ms, [&] { second.cancel(); });
        second = this->queue->after(0ms, [&] { fired = true; });
        third = this->queue->after(0ms, [&] { done = true; });
    });
    ASSERT_TRUE(this->waitUntil([&] { return done; }));
    EXPECT_FALSE(fired);
    this->runOn([&] { first = {}, second = {}, third = {}; });
}

TYPED_TEST(AnyQueue, letsACallbackDestroyItsOwnSubscriptionAndReleasesCapturesOnCancel)
{
    const auto captured = std::make_shared<int>(7);
    Subscription timer, repetition, watch, pending;
    Pipe pipe;
    int sum = 0;
    this->runOn([&] {
        timer = this->queue->after(1ms, [&, captured] {
            timer = {};
            sum += *captured;
        });
        repetition = this->queue->every(1ms, [&, captured] {
            repetition = {};
            sum += *captured;
        });
        watch = this->queue->whenReadable(pipe.ends[0], [&, captured] {
            watch = {};
            sum += *captured;
        });
        pending = this->queue->after(1h, [captured] {});
    });
    pipe.write("x");
    ASSERT_TRUE(this->waitUntil([&] { return sum == 21; }));
    this->runOn([&] { pending = {}; });
    this->runOn([] {});
    EXPECT_EQ(captured.use_count(), 1);
}

TYPED_TEST(AnyQueue, repeatsAtAFixedDistanceFromTheDueTimes)
{
    std::vector<Duration> times;
    Subscription repetition;
    this->runOn([&] {
        const SteadyTime start = this->queue->now();
        repetition = this->queue->every(5ms, [&, start] { times.push_back(this->queue->now() - start); });
    });
    ASSERT_TRUE(this->waitUntil([&] { return times.size() >= 10; }));
    this->runOn([&] { repetition.cancel(); });
    for (std::size_t i = 0; i < times.size(); ++i) EXPECT_GE(times[i], 5ms * int(i + 1));
    if constexpr (TypeParam::isVirtual) {
        EXPECT_EQ(times[9], 50ms);
    }
}

TYPED_TEST(AnyQueue, watchesADescriptorThatStaysTheCallers)
{
    Pipe pipe;
    std::string received;
    Subscription watch;
    const int flags = ::fcntl(pipe.ends[0], F_GETFL);
    this->runOn(
        [&] { watch = this->queue->whenReadable(pipe.ends[0], [&] { received += pipe.readOne(); }); });
    EXPECT_EQ(::fcntl(pipe.ends[0], F_GETFL), flags);
    pipe.write("ab"); // one byte a call: what is left fires again
    pipe.write("c");
    ASSERT_TRUE(this->waitUntil([&] { return received.size() == 3; }));
    EXPECT_EQ(received, "abc");

    this->runOn([&] { watch.cancel(); });
    pipe.write("d");
    this->runOn([] {});
    EXPECT_EQ(received, "abc");
    EXPECT_EQ(pipe.readOne(), 'd');

    bool closed = false;
    this->runOn([&] {
        watch = this->queue->whenReadable(pipe.ends[0], [&] {
            char byte;
            closed = ::read(pipe.ends[0], &byte, 1) == 0;
            watch = {};
        });
    });
    pipe.closeWriter();
    EXPECT_TRUE(this->waitUntil([&] { return closed; }));
}

TYPED_TEST(AnyQueue, neverReportsADescriptorReadableForWhatWasReadAlready)
{
    constexpr int count = 5000;
    Pipe pipe;
    int received = 0;
    Subscription watch;
    this->runOn([&] {
        watch = this->queue->whenReadable(pipe.ends[0], [&] {
            pipe.readOne(); // would block for good
            ++received;
        });
    });
    for (int i = 0; i < count; ++i) pipe.write("x");
    EXPECT_TRUE(this->waitUntil([&] { return received == count; }));
    this->runOn([&] { watch.cancel(); });
}

TYPED_TEST(AnyQueue, survivesEveryOrderOfDestruction)
{
    for (const std::string order : {"PQS", "PSQ", "QPS", "QSP", "SPQ", "SQP"}) {
        SCOPED_TRACE(order);
        auto harness = std::make_unique<TypeParam>();
        QueueRef queue = harness->makeQueue();
        Pipe pipe;
        const auto captured = std::make_shared<int>();
        std::vector<Subscription> subscriptions;
        harness->runOn(queue, [&] {
            subscriptions.push_back(queue->after(1h, [captured, queue] {}));
            subscriptions.push_back(queue->every(1ms, [captured] {}));
            subscriptions.push_back(queue->whenReadable(pipe.ends[0], [captured] {}));
        });
        for (const char step : order) {
            if (step == 'P') harness.reset();
            if (step == 'Q') queue.reset();
            if (step != 'S') continue;
            if (harness && queue)
                harness->runOn(queue, [&] { subscriptions.clear(); });
            else if (harness)
                break; // only its own queue may cancel: the pool goes first
            else
                subscriptions.clear();
        }
        harness.reset();
        subscriptions.clear();
        EXPECT_EQ(captured.use_count(), 1);
    }
}

// At any moment one such task is waiting or running.
static void postForever(const QueueRef& queue, std::shared_ptr<int> count)
{
    queue->post([queue, count] {
        ++*count;
        postForever(queue, count);
    });
}

TYPED_TEST(AnyQueue, destroysTasksNotYetBegunOnItselfWhenThePoolGoes)
{
    struct Asserting {
        ~Asserting() { queue->assertCurrent(); }
        QueueRef queue;
    };
    const auto captured = std::make_shared<int>();
    auto harness = std::make_unique<TypeParam>();
    const QueueRef queue = harness->makeQueue();
    postForever(queue, captured);
    queue->post([object = std::make_shared<Asserting>(queue)] {});
    harness.reset();
    EXPECT_EQ(captured.use_count(), 1);

    queue->post([captured] {});
    EXPECT_EQ(captured.use_count(), 1) << "a task posted to a stopped pool is destroyed at once";
}

TYPED_TEST(AnyQueue, keepsATaskForLaterWithoutAHandleUntilItRanOrThePoolGoes)
{
    auto harness = std::make_unique<TypeParam>();
    const QueueRef queue = harness->makeQueue();
    const auto captured = std::make_shared<int>();
    bool isEarly = false;
    harness->runOn(queue, [&] {
        const SteadyTime due = queue->now() + 2ms;
        queue->postAfter(2ms, [&, due, captured] {
            isEarly = queue->now() < due;
            queue->postAfter(1h, [queue, captured] {}); // which would keep the queue alive by itself
            ++*captured;
        });
    });
    ASSERT_TRUE(harness->waitUntil(queue, [&] { return *captured == 1; }));
    EXPECT_FALSE(isEarly);
    EXPECT_EQ(captured.use_count(), 2) << "one that ran is released";
    harness.reset();
    EXPECT_EQ(captured.use_count(), 1);
    queue->postAfter(1ms, [queue, captured] {});
    EXPECT_EQ(captured.use_count(), 1) << "nothing waits on a stopped pool";
}

TYPED_TEST(AnyQueue, answersALifetimeWatchAfterAHopThroughAnotherQueue)
{
    const QueueRef other = this->harness.makeQueue("other");
    auto lifetime = std::make_unique<Lifetime>();
    int alive = 0, dead = 0;
    const auto hop = [&] {
        other->post(
            [&, watch = lifetime->watch()] { this->queue->post([&, watch] { ++(watch ? alive : dead); }); });
    };
    this->runOn(hop);
    ASSERT_TRUE(this->waitUntil([&] { return alive == 1; }));
    this->runOn([&] {
        hop();
        lifetime.reset(); // mid-flight
    });
    ASSERT_TRUE(this->waitUntil([&] { return dead == 1; }));
    EXPECT_EQ(alive, 1);
}

namespace {

// A stateful object as there are many: a timer, work on another queue that answers, and an owner who may drop
// it at any moment.
class Worker {
public:
    Worker(QueueRef newOwn, QueueRef newOther, std::atomic<int>& newLive)
        : own(std::move(newOwn)),
          other(std::move(newOther)),
          live(newLive)
    {
        ++live;
        timer = own->every(50us, [this] { ask(); });
    }
    ~Worker()
    {
        own->assertCurrent();
        --live;
    }
    int answers = 0;

private:
    void ask()
    {
        other->post([this, queue = own, alive = lifetime.watch()] {
            queue->post([this, alive] {
                if (alive) ++answers; // a stale one would count in freed memory
            });
        });
    }
    QueueRef own, other;
    std::atomic<int>& live;
    Subscription timer;
    Lifetime lifetime;
};

} // namespace

TEST(QueuePool, dropsObjectsWithTimersAndHopsInFlightAtAnyMoment)
{
    std::atomic<int> live = 0;
    std::vector<std::unique_ptr<Worker>> workers(8);
    {
        PoolHarness harness;
        const QueueRef own = harness.makeQueue("own"), other = harness.makeQueue("other");
        for (std::size_t round = 0; round < 2000; ++round)
            own->post([&, round] {
                auto& worker = workers[round * 7 % workers.size()];
                worker = std::make_unique<Worker>(own, other, live);
            });
        int answers = 0;
        EXPECT_TRUE(harness.waitUntil(own, [&] {
            answers = 0;
            for (const auto& worker : workers) answers += worker ? worker->answers : 0;
            return answers > 100;
        }));
        harness.runOn(own, [&] { workers.clear(); });
    }
    EXPECT_EQ(live, 0);
}

TEST(QueuePool, neverFiresATimerAfterItsCancellationHoweverCloseTheyRace)
{
    PoolHarness harness;
    const QueueRef queue = harness.makeQueue(), clock = harness.makeQueue("clock");
    struct Trial {
        Subscription timer;
        bool isCancelled = false;
    };
    std::vector<Trial> trials(3000);
    int firedLate = 0, fired = 0, settled = 0;
    for (std::size_t i = 0; i < trials.size(); ++i) {
        Trial& trial = trials[i];
        queue->post([&, delay = std::chrono::microseconds(i % 60)] {
            trial.timer = queue->after(delay, [&] {
                ++fired;
                firedLate += trial.isCancelled;
            });
            clock->post([&] { // arrives about when the timer comes due
                queue->post([&] {
                    trial.timer.cancel();
                    trial.isCancelled = true;
                    ++settled;
                });
            });
        });
    }
    ASSERT_TRUE(harness.waitUntil(queue, [&] { return settled == int(trials.size()); }));
    harness.runOn(queue, [] {});
    EXPECT_EQ(firedLate, 0);
    EXPECT_LE(fired, int(trials.size()));
}

TEST(QueuePoolDeathTest, stopsTheProgramOnACallOffTheQueue)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            QueuePool pool(1);
            pool.makeQueue("dev.pelorin.test")->assertCurrent();
        },
        "dev.pelorin.test");
}
