#include "PelorinNet/Queue/QueuePool.h"

#include "PelorinCore/Result.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/PoolEngine.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fcntl.h>
#include <utility>

namespace pelorin {
namespace asio = boost::asio;
using boost::system::error_code;

namespace {

// What timers and watches have in common: they are cancelled on their queue, or once nothing runs any more.
class PoolSubscription : public Subscription::State {
protected:
    PoolSubscription(EngineRef newEngine, Strand newStrand)
        : engine(std::move(newEngine)),
          strand(std::move(newStrand))
    {
    }

    void assertMayTouch() const
    {
        require(strand.running_in_this_thread() || engine->isStopped(),
            "a subscription is cancelled on its own queue only");
    }

    const EngineRef engine;
    const Strand strand;
};

class PoolTimer final : public PoolSubscription, public std::enable_shared_from_this<PoolTimer> {
public:
    PoolTimer(EngineRef newEngine, Strand newStrand, Task newTask)
        : PoolSubscription(std::move(newEngine), std::move(newStrand)),
          task(std::move(newTask)),
          timer(engine->context)
    {
    }

    void start(Duration delay)
    {
        timer.expires_after(delay);
        timer.async_wait(asio::bind_executor(strand, [watch = weak_from_this()](error_code) {
            // The task is gone when we were cancelled, even with this handler queued before that.
            const auto self = watch.lock();
            if (self && self->task) std::exchange(self->task, nullptr)();
        }));
    }

    void cancel() override
    {
        assertMayTouch();
        timer.cancel();
        task = nullptr;
    }

private:
    Task task;
    asio::steady_timer timer;
};

class PoolWatch final : public PoolSubscription, public std::enable_shared_from_this<PoolWatch> {
public:
    PoolWatch(EngineRef newEngine, Strand newStrand, std::function<void()> newTask)
        : PoolSubscription(std::move(newEngine), std::move(newStrand)),
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
        assertMayTouch();
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
        // Moved out for the call: the task may cancel us, and its captures must outlive its own run.
        auto running = std::move(task);
        running();
        if (isCancelled) return;
        task = std::move(running);
        waitReadable();
    }

    // Destruction would close what is not ours.
    void release()
    {
        if (descriptor.is_open()) descriptor.release();
    }

    std::function<void()> task;
    asio::posix::stream_descriptor descriptor;
    bool isCancelled = false;
};

class PoolQueue final : public SerialQueue {
public:
    PoolQueue(EngineRef newEngine, std::string newLabel)
        : engine(std::move(newEngine)),
          queueStrand(engine->context.get_executor()),
          queueLabel(std::move(newLabel))
    {
    }

    void post(Task task) override { asio::post(queueStrand, std::move(task)); }

    Subscription after(Duration delay, Task task) override
    {
        assertCurrent();
        auto timer = std::make_shared<PoolTimer>(engine, queueStrand, std::move(task));
        timer->start(delay);
        return Subscription(std::move(timer));
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
