#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <utility>

namespace pelorin {

// Calls back, where the callback may destroy its holder or set a new callback in its own place: it runs from
// here, and goes back only to a holder that lives and has no newer one.
template <class Callback, class... Args>
void callOut(Callback& callback, const Lifetime::Watch& holder, Args&&... args)
{
    if (!callback) return;
    auto running = std::exchange(callback, nullptr);
    running(std::forward<Args>(args)...);
    if (holder && !callback) callback = std::move(running);
}

} // namespace pelorin
