#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace pelorin::lab {

// How many times longer a build under a sanitizer may take for what is measured in real time.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr int slowness = 5;
#else
inline constexpr int slowness = 1;
#endif

// Asks again and again until condition holds; false when it never did. For what only shows from outside, such
// as another program's file or an X server's state.
inline bool eventually(
    const std::function<bool()>& condition, std::chrono::milliseconds within = std::chrono::seconds(20))
{
    const auto deadline = std::chrono::steady_clock::now() + within;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Runs each on a thread of its own, for what mostly waits; returns when all are done.
inline void atOnce(const std::vector<std::function<void()>>& works)
{
    std::vector<std::jthread> threads;
    for (const auto& work : works) threads.emplace_back(work);
}

} // namespace pelorin::lab
