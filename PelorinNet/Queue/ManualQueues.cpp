#include "PelorinNet/Queue/ManualQueues.h"

#include "PelorinCore/Result.h"
#include "PelorinNet/Queue/TimerMap.h"

#include <algorithm>
#include <deque>
#include <list>
#include <mutex>
#include <poll.h>
#include <thread>
#include <utility>
#include <vector>

namespace pelorin {
namespace {

class ManualQueue;
class ManualWatch;

} // namespace

struct ManualQueues::Engine final : TimerMap {
    struct Posted {
        const SerialQueue* queue = nullptr; // only compared: the queue may be gone before its tasks
        Task task;
    };

    void post(const SerialQueue* queue, Task task);
    void runReady();
    void advanceTo(SteadyTime target);
    void stop();
    // Outside of tasks the driving thread is on every queue.
    bool isCurrent(const SerialQueue* queue) const
    {
        return std::this_thread::get_id() == drivingThread && (!running || running == queue);
    }
    bool mayCancel(const SerialQueue* queue) const override { return isCurrent(queue); }
    bool hasStopped()
    {
        const std::lock_guard guard(lock);
        return isStopped;
    }

    SteadyTime now{std::chrono::hours(24)};
    Duration wallAhead = std::chrono::hours(24 * 365 * 54); // of the steady clock: a day early in 2024
    std::vector<std::weak_ptr<ManualWatch>> watches;
    std::list<Subscription> kept; // timers that nobody else holds

private:
    bool runPosted();
    bool runDue();
    bool runReadable();

    const std::thread::id drivingThread = std::this_thread::get_id();
    const SerialQueue* running = nullptr;
    std::mutex lock; // guards ready and isStopped
    std::deque<Posted> ready;
    bool isStopped = false;
};

namespace {

using EngineRef = std::shared_ptr<ManualQueues::Engine>;

class ManualWatch final : public Subscription::State {
public:
    ManualWatch(const SerialQueue* newQueue, int newFd, std::function<void()> newTask)
        : queue(newQueue),
          fd(newFd),
          task(std::move(newTask))
    {
    }

    void fire()
    {
        if (isCancelled) return;
        // Moved out for the call: the task may cancel us, and its captures must outlive its own run.
        auto callback = std::move(task);
        callback();
        if (!isCancelled) task = std::move(callback);
    }

    void cancel() override
    {
        isCancelled = true;
        task = nullptr;
    }

    const SerialQueue* const queue;
    const int fd;
    bool isCancelled = false;

private:
    std::function<void()> task;
};

class ManualQueue final : public SerialQueue {
public:
    ManualQueue(EngineRef newEngine, std::string newLabel)
        : engine(std::move(newEngine)),
          queueLabel(std::move(newLabel))
    {
    }

    void post(Task task) override { engine->post(this, std::move(task)); }

    Subscription after(Duration delay, Task task) override
    {
        assertCurrent();
        return engine->add(engine->now + delay, this, std::move(task));
    }

    void postAfter(Duration delay, Task task) override
    {
        if (engine->hasStopped()) return;
        auto& kept = engine->kept;
        const auto place = kept.emplace(kept.end());
        *place = after(delay, [&kept, place, task = std::move(task)]() mutable {
            task();
            kept.erase(place);
        });
    }

    Subscription whenReadable(int fd, std::function<void()> task) override
    {
        assertCurrent();
        auto watch = std::make_shared<ManualWatch>(this, fd, std::move(task));
        engine->watches.push_back(watch);
        return Subscription(std::move(watch));
    }

    SteadyTime now() const override { return engine->now; }
    WallTime wallNow() const override
    {
        return WallTime(std::chrono::duration_cast<WallTime::duration>(
            engine->now.time_since_epoch() + engine->wallAhead));
    }

    bool isCurrent() const override { return engine->isCurrent(this); }
    const std::string& label() const override { return queueLabel; }

private:
    const EngineRef engine;
    const std::string queueLabel;
};

} // namespace

void ManualQueues::Engine::post(const SerialQueue* queue, Task task)
{
    const std::lock_guard guard(lock);
    if (!isStopped) ready.push_back({queue, std::move(task)});
}

void ManualQueues::Engine::runReady()
{
    require(std::this_thread::get_id() == drivingThread && !running, "manual queues are driven from outside");
    while (runPosted() || runDue() || runReadable()) {}
}

bool ManualQueues::Engine::runPosted()
{
    Posted next;
    {
        const std::lock_guard guard(lock);
        if (ready.empty()) return false;
        next = std::move(ready.front());
        ready.pop_front();
    }
    running = next.queue;
    next.task();
    next.task = nullptr; // what it captured is released on its queue
    running = nullptr;
    return true;
}

// Everything due is posted before any of it runs, as the timers of a real queue that was late.
bool ManualQueues::Engine::runDue()
{
    const auto due = takeDue(now);
    for (const auto& timer : due)
        post(timer->queue, [watch = std::weak_ptr(timer)] {
            if (const auto fired = watch.lock()) fired->fire();
        });
    return !due.empty();
}

bool ManualQueues::Engine::runReadable()
{
    std::erase_if(watches, [](const auto& weak) {
        const auto watch = weak.lock();
        return !watch || watch->isCancelled;
    });
    std::vector<pollfd> polled;
    for (const auto& watch : watches) polled.push_back({watch.lock()->fd, POLLIN, 0});
    if (polled.empty() || ::poll(polled.data(), polled.size(), 0) <= 0) return false;
    for (std::size_t i = 0; i < polled.size(); ++i) {
        if (!polled[i].revents) continue;
        post(watches[i].lock()->queue, [watch = watches[i]] {
            if (const auto fired = watch.lock()) fired->fire();
        });
    }
    return true;
}

void ManualQueues::Engine::advanceTo(SteadyTime target)
{
    runReady();
    while (nextDue() && *nextDue() <= target) {
        now = std::max(now, *nextDue());
        runReady();
    }
    now = std::max(now, target);
}

void ManualQueues::Engine::stop()
{
    const auto discardedTimers = std::exchange(kept, {});
    std::deque<Posted> discarded;
    {
        const std::lock_guard guard(lock);
        isStopped = true;
        discarded.swap(ready);
    }
}

ManualQueues::ManualQueues() : engine(std::make_shared<Engine>()) {}

ManualQueues::~ManualQueues()
{
    engine->stop();
}

QueueRef ManualQueues::makeQueue(std::string label)
{
    return std::make_shared<ManualQueue>(engine, std::move(label));
}

void ManualQueues::runReady()
{
    engine->runReady();
}

void ManualQueues::advance(Duration duration)
{
    engine->advanceTo(engine->now + duration);
}

void ManualQueues::stall(Duration duration)
{
    engine->now += duration;
    engine->advanceTo(engine->now);
}

void ManualQueues::jumpWall(Duration duration)
{
    engine->wallAhead += duration;
}

SteadyTime ManualQueues::now() const
{
    return engine->now;
}

} // namespace pelorin
