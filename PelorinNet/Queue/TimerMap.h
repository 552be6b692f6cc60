#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <map>
#include <optional>
#include <vector>

namespace pelorin {

// The timers behind after, in the order of their due times, and of their making within one instant. Both
// kinds of queue fire from it, so that a late queue runs its timers in order however many threads it has.
// Confined as its owner is; shared by the subscriptions of its timers.
class TimerMap : public std::enable_shared_from_this<TimerMap> {
public:
    class Timer;

    virtual ~TimerMap() = default;

    [[nodiscard]] Subscription add(SteadyTime due, const SerialQueue* queue, Task task);
    std::optional<SteadyTime> nextDue() const;
    // Takes out what is due by now, to be fired in this order; one cancelled until then fires as nothing.
    std::vector<std::shared_ptr<Timer>> takeDue(SteadyTime now);

protected:
    // Whether a timer of this queue may be cancelled where the caller is.
    virtual bool mayCancel(const SerialQueue* queue) const = 0;

private:
    std::multimap<SteadyTime, std::weak_ptr<Timer>> timers;
};

// Owned by its subscription.
class TimerMap::Timer final : public Subscription::State {
public:
    Timer(std::shared_ptr<TimerMap> newMap, const SerialQueue* newQueue, Task newTask)
        : queue(newQueue),
          map(std::move(newMap)),
          task(std::move(newTask))
    {
    }

    void fire();
    void cancel() override;

    const SerialQueue* const queue; // only compared: it may be gone before its timers

private:
    friend class TimerMap;

    const std::shared_ptr<TimerMap> map;
    Task task;
    std::multimap<SteadyTime, std::weak_ptr<Timer>>::iterator position; // while isInMap
    bool isInMap = false;
};

} // namespace pelorin
