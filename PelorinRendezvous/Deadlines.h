#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

namespace pelorin {

// When each of many is to be looked at again, so that nobody has to look through all of them. Each has one
// entry. A deadline that moves later is not told here: who is taken out is asked how things are with it, and
// put in again if it has time left; who is gone by then is passed over. So a sign of life costs nothing.
template <class Key>
class Deadlines {
public:
    void add(Key key, SteadyTime end) { slots[std::chrono::ceil<Slot>(end)].push_back(std::move(key)); }

    // Those whose deadline has come; when asked every period, none waits longer than two beyond it.
    std::vector<Key> takeDue(SteadyTime now)
    {
        std::vector<Key> due;
        while (!slots.empty() && slots.begin()->first <= now) {
            const auto slot = slots.extract(slots.begin());
            std::ranges::move(slot.mapped(), std::back_inserter(due));
        }
        return due;
    }

    // Short: what thousands of peers began in one second does not end in one turn.
    static constexpr std::chrono::milliseconds period{100};

private:
    using Slot = std::chrono::duration<std::int64_t, std::deci>;
    std::map<std::chrono::time_point<std::chrono::steady_clock, Slot>, std::vector<Key>> slots;
};

} // namespace pelorin
