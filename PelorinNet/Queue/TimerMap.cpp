#include "PelorinNet/Queue/TimerMap.h"

#include "PelorinCore/Result.h"

#include <utility>

namespace pelorin {

Subscription TimerMap::add(SteadyTime due, const SerialQueue* queue, Task task)
{
    auto timer = std::make_shared<Timer>(shared_from_this(), queue, std::move(task));
    timer->position = timers.emplace(due, timer);
    timer->isInMap = true;
    return Subscription(std::move(timer));
}

std::optional<SteadyTime> TimerMap::nextDue() const
{
    if (timers.empty()) return std::nullopt;
    return timers.begin()->first;
}

std::vector<std::shared_ptr<TimerMap::Timer>> TimerMap::takeDue(SteadyTime now)
{
    std::vector<std::shared_ptr<Timer>> due;
    while (!timers.empty() && timers.begin()->first <= now) {
        due.push_back(timers.begin()->second.lock()); // never null: a timer leaves the map when it goes
        due.back()->isInMap = false;
        timers.erase(timers.begin());
    }
    return due;
}

void TimerMap::Timer::fire()
{
    // Moved out for the call: the task may cancel us, and its captures must outlive its own run.
    if (task) std::exchange(task, nullptr)();
}

void TimerMap::Timer::cancel()
{
    require(map->mayCancel(queue), "a subscription is cancelled on its own queue only");
    if (std::exchange(isInMap, false)) map->timers.erase(position);
    task = nullptr;
}

} // namespace pelorin
