#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <cstddef>
#include <map>

namespace pelorin {

// How often something may be done: on average once per interval, and after a rest so many times at once. What
// is remembered of the doer is one point in time, when all that was done would be paid back.
struct Rate {
    Duration interval{};
    int burst = 1;

    static Rate perMinute(int count) { return {Duration(std::chrono::minutes(1)) / count, count}; }

    bool take(SteadyTime& paidBack, SteadyTime now) const
    {
        const SteadyTime from = std::max(paidBack, now);
        if (from + interval > now + interval * burst) return false;
        paidBack = from + interval;
        return true;
    }
};

// The same rate for each of many, told apart by a key. Remembers only who has something to pay back.
template <class Key>
class RateLimiter {
public:
    explicit RateLimiter(Rate newRate) : rate(newRate) {}

    // False when key has done too much, and when so many others are remembered that a newcomer could not be.
    bool take(const Key& key, SteadyTime now)
    {
        if (debts.size() >= maxKnown && !debts.contains(key)) {
            // Looking through all of them for each of a flood of newcomers would be what the flood is after.
            if (now - looked < rate.interval) return false;
            forgetPaid(now);
            if (debts.size() >= maxKnown) return false;
        }
        return rate.take(debts[key], now);
    }

    void forgetPaid(SteadyTime now)
    {
        looked = now;
        std::erase_if(debts, [now](const auto& entry) { return entry.second <= now; });
    }

    std::size_t knownCount() const { return debts.size(); }

    static constexpr std::size_t maxKnown = 100'000; // some 10 MiB

private:
    const Rate rate;
    std::map<Key, SteadyTime> debts;
    SteadyTime looked; // through all, last
};

} // namespace pelorin
