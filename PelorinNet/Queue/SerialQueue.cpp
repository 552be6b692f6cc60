#include "PelorinNet/Queue/SerialQueue.h"

#include "PelorinCore/Result.h"

namespace pelorin {
namespace {

// One timer after another on the grid of due times. Owned by its Subscription; the pending timer only
// watches.
class Repetition final : public Subscription::State, public std::enable_shared_from_this<Repetition> {
public:
    Repetition(QueueRef newQueue, Duration newPeriod, std::function<void()> newTask)
        : queue(std::move(newQueue)),
          period(newPeriod),
          task(std::move(newTask)),
          due(queue->now())
    {
    }

    void scheduleNext()
    {
        const Duration late = queue->now() - due;
        due += (late / period + 1) * period;
        timer = queue->after(due - queue->now(), [watch = weak_from_this()] {
            if (const auto self = watch.lock()) self->fire();
        });
    }

    void cancel() override
    {
        isCancelled = true;
        timer.cancel();
        task = {};
    }

private:
    void fire()
    {
        // Moved out for the call: the task may cancel us, and its captures must outlive its own run.
        auto running = std::move(task);
        running();
        if (isCancelled) return;
        task = std::move(running);
        scheduleNext();
    }

    const QueueRef queue;
    const Duration period;
    std::function<void()> task;
    SteadyTime due;
    Subscription timer;
    bool isCancelled = false;
};

} // namespace

Subscription& Subscription::operator=(Subscription&& other) noexcept
{
    if (this == &other) return *this;
    cancel();
    state = std::move(other.state);
    return *this;
}

void Subscription::cancel()
{
    // Taken first: releasing what the callback captured may come back here.
    if (const auto cancelled = std::move(state)) cancelled->cancel();
}

Subscription SerialQueue::every(Duration period, std::function<void()> task)
{
    assertCurrent();
    require(period > Duration::zero(), "SerialQueue: a period must be positive");
    auto repetition = std::make_shared<Repetition>(shared_from_this(), period, std::move(task));
    repetition->scheduleNext();
    return Subscription(std::move(repetition));
}

void SerialQueue::assertCurrent() const
{
    if (!isCurrent()) require(false, ("called off the queue " + label()).c_str());
}

} // namespace pelorin
