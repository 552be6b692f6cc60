#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Owns an object that lives on another queue: it is made, used and destroyed there, in the order of the calls
// here. Any thread.
template <class T>
class Confined {
public:
    Confined() = default;
    Confined(QueueRef homeQueue, std::move_only_function<std::unique_ptr<T>()> make)
        : queue(std::move(homeQueue)),
          slot(std::make_shared<std::unique_ptr<T>>())
    {
        queue->post([slot = slot, make = std::move(make)]() mutable { *slot = make(); });
    }
    Confined(Confined&&) noexcept = default;
    Confined& operator=(Confined&& other) noexcept
    {
        release();
        queue = std::move(other.queue);
        slot = std::move(other.slot);
        return *this;
    }
    ~Confined() { release(); }

    void run(std::move_only_function<void(T&)> work)
    {
        queue->post([slot = slot, work = std::move(work)]() mutable {
            if (*slot) work(**slot);
        });
    }
    explicit operator bool() const { return slot != nullptr; }

private:
    void release()
    {
        if (slot) queue->post([slot = std::move(slot)] { slot->reset(); });
    }

    QueueRef queue;
    std::shared_ptr<std::unique_ptr<T>> slot;
};

} // namespace pelorin
