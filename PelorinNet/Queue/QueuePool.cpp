#include "PelorinNet/Queue/QueuePool.h"

#include "PelorinCore/Result.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/PoolEngine.h"
#include "PelorinNet/Queue/TimerMap.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fcntl.h>
#include <poll.h>

namespace pelorin {
namespace asio = boost::asio;
using boost::system::error_code;

namespace {

// One queue's timers, woken by one timer of the system. Owned by the queue and by their subscriptions.
class PoolTimers final : public TimerMap {
public:
    PoolTimers(EngineRef newEngine, Strand newStrand)
        : engine(std::move(newEngine)),
          strand(std::move(newStrand)),
          alarm(engine->context)
    {
    }

    Subscription after(Duration delay, const SerialQueue* queue, Task task)
    {
        auto subscription = add(std::chrono::steady_clock::now() + delay, queue, std::move(task));
        setAlarm();
        return subscription;
    }

private:
    // An alarm that is too early, because its timer was cancelled, costs less than setting it anew each time.
    void setAlarm()
    {
        const auto due = nextDue();
        if (!due || (alarmTime && *alarmTime <= *due)) return;
        alarmTime = due;
        alarm.expires_at(*due);
        alarm.async_wait(
            asio::bind_executor(strand, [watch = std::weak_ptr(shared_from_this())](error_code error) {
                const auto self = std::static_pointer_cast<PoolTimers>(watch.lock());
                if (self && !error) self->fireDue();
            }));
    }

    void fireDue()
    {
        alarmTime.reset();
        const auto due = takeDue(std::chrono::steady_clock::now());
        setAlarm();
        for (const auto& timer : due) timer->fire();
    }

    bool mayCancel(const SerialQueue*) const override
    {
        return strand.running_in_this_thread() || engine->isStopped();
    }

    const EngineRef engine;
    const Strand strand;
    asio::steady_timer alarm;
    std::optional<SteadyTime> alarmTime; // while the alarm is set
};

class PoolWatch final : public Subscription::State, public std::enable_shared_from_this<PoolWatch> {
public:
    PoolWatch(EngineRef newEngine, Strand newStrand, std::function<void()> newTask)
        : engine(std::move(newEngine)),
          strand(std::move(newStrand)),
          task(std::move(newTask)),
          descriptor(engine->context)
    {
    }
    ~PoolWatch() override { release(); }

    void start(int fd)
    {
        // Asio makes the descriptor non-blocking, which is the caller's to decide.
        const int flags = ::fcntl(fd, F_GETFL);
        error_code error;
        descriptor.assign(fd, error);
        if (error) return Log("queue").error("Cannot watch descriptor {}: {}", fd, error.message());
        waitReadable();
        ::fcntl(fd, F_SETFL, flags);
    }

    void cancel() override
    {
        require(strand.running_in_this_thread() || engine->isStopped(),
            "a subscription is cancelled on its own queue only");
        isCancelled = true;
        release();
        task = nullptr;
    }

private:
    void waitReadable()
    {
        descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
            asio::bind_executor(strand, [watch = weak_from_this()](error_code error) {
                if (const auto self = watch.lock(); self && !error) self->fire();
            }));
    }

    void fire()
    {
        if (isCancelled) return;
        if (!isReadable()) return waitReadable();
        // Moved out for the call: the task may cancel us, and its captures must outlive its own run.
        auto running = std::move(task);
        running();
        if (isCancelled) return;
        task = std::move(running);
        waitReadable();
    }

    // With several threads the reactor may report what the task's last run has read meanwhile; a task that
    // reads a blocking descriptor would hang on that.
    bool isReadable()
    {
        pollfd polled{descriptor.native_handle(), POLLIN, 0};
        return ::poll(&polled, 1, 0) > 0;
    }

    // Destruction would close what is not ours.
    void release()
    {
        if (descriptor.is_open()) descriptor.release();
    }

    const EngineRef engine;
    const Strand strand;
    std::function<void()> task;
    asio::posix::stream_descriptor descriptor;
    bool isCancelled = false;
};

class PoolQueue final : public SerialQueue {
public:
    PoolQueue(EngineRef newEngine, std::string newLabel)
        : engine(std::move(newEngine)),
          queueStrand(engine->context.get_executor()),
          queueLabel(std::move(newLabel)),
          timers(std::make_shared<PoolTimers>(engine, queueStrand))
    {
    }

    void post(Task task) override { asio::post(queueStrand, std::move(task)); }

    Subscription after(Duration delay, Task task) override
    {
        assertCurrent();
        return timers->after(delay, this, std::move(task));
    }

    void postAfter(Duration delay, Task task) override
    {
        assertCurrent();
        if (engine->isStopped()) return;
        auto timer = std::make_unique<asio::steady_timer>(engine->context, delay);
        auto& alarm = *timer;
        alarm.async_wait(asio::bind_executor(
            queueStrand, [timer = std::move(timer), task = std::move(task)](error_code) mutable { task(); }));
    }

    Subscription whenReadable(int fd, std::function<void()> task) override
    {
        assertCurrent();
        auto watch = std::make_shared<PoolWatch>(engine, queueStrand, std::move(task));
        watch->start(fd);
        return Subscription(std::move(watch));
    }

    SteadyTime now() const override { return std::chrono::steady_clock::now(); }
    WallTime wallNow() const override { return std::chrono::system_clock::now(); }
    // Once the pool has stopped, one thread is left and takes the rest apart, whatever queue it lived on.
    bool isCurrent() const override { return queueStrand.running_in_this_thread() || engine->isStopped(); }
    const std::string& label() const override { return queueLabel; }

    const Strand& strand() const { return queueStrand; }

private:
    const EngineRef engine;
    const Strand queueStrand;
    const std::string queueLabel;
    const std::shared_ptr<PoolTimers> timers;
};

} // namespace

QueuePool::Engine::Engine(int threadCount) : context(threadCount), work(context.get_executor())
{
    require(threadCount > 0, "a QueuePool needs a thread");
    for (int i = 0; i < threadCount; ++i) threads.emplace_back([this] { context.run(); });
}

void QueuePool::Engine::stop()
{
    context.stop();
    for (auto& thread : threads) {
        require(
            thread.get_id() != std::this_thread::get_id(), "a QueuePool is not destroyed on its own thread");
        thread.join();
    }
    stopped = true;
    context.discardHandlers();
}

QueuePool::QueuePool(int threads) : shared(std::make_shared<Engine>(threads)) {}

QueuePool::~QueuePool()
{
    shared->stop();
}

QueueRef QueuePool::makeQueue(std::string label)
{
    return std::make_shared<PoolQueue>(shared, std::move(label));
}

const Strand& strandOf(const SerialQueue& queue)
{
    const auto* poolQueue = dynamic_cast<const PoolQueue*>(&queue);
    require(poolQueue, "sockets live on a QueuePool's queues only");
    return poolQueue->strand();
}

} // namespace pelorin
