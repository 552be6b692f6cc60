#include "PelorinHost/Trust/ChangeNotice.h"

#include <utility>

namespace pelorin {

class ChangeNotice::Subscriber final : public Subscription::State,
                                       public std::enable_shared_from_this<Subscriber> {
public:
    Subscriber(QueueRef newQueue, std::function<void()> newChanged)
        : queue(std::move(newQueue)),
          changed(std::move(newChanged))
    {
    }

    void tell()
    {
        queue->post([watch = weak_from_this()] {
            if (const auto self = watch.lock()) self->fire();
        });
    }

    void cancel() override
    {
        queue->assertCurrent();
        isCancelled = true;
        changed = {};
    }

private:
    void fire()
    {
        if (isCancelled) return;
        const auto running = std::exchange(changed, {}); // it may cancel us, which must not end it half-way
        running();
        if (!isCancelled) changed = running;
    }

    const QueueRef queue;
    std::function<void()> changed;
    bool isCancelled = false;
};

Subscription ChangeNotice::subscribe(QueueRef queue, std::function<void()> changed)
{
    const auto subscriber = std::make_shared<Subscriber>(std::move(queue), std::move(changed));
    const std::scoped_lock guard(lock);
    subscribers.push_back(subscriber);
    return Subscription(subscriber);
}

void ChangeNotice::post()
{
    const std::scoped_lock guard(lock);
    std::erase_if(subscribers, [](const auto& subscriber) {
        const auto alive = subscriber.lock();
        if (alive) alive->tell();
        return !alive;
    });
}

} // namespace pelorin
