#pragma once

#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinNet/Queue/QueuePool.h"

#include <gtest/gtest.h>
#include <semaphore>
#include <thread>

namespace pelorin {

// The same few verbs for both kinds of queue, so that one test suite speaks to both.
class PoolHarness {
public:
    static constexpr bool isVirtual = false;
    QueueRef makeQueue(std::string label = "test") { return pool.makeQueue(std::move(label)); }

    // Runs task on queue and returns when it has run.
    void runOn(const QueueRef& queue, Task task)
    {
        std::binary_semaphore done(0);
        queue->post([&] {
            task();
            done.release();
        });
        done.acquire();
    }

    // Returns when condition, asked on queue, holds; fails after a deadline far beyond need.
    bool waitUntil(const QueueRef& queue, const std::function<bool()>& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool holds = false;
        while (!holds && std::chrono::steady_clock::now() < deadline) {
            runOn(queue, [&] { holds = condition(); });
            if (!holds) std::this_thread::yield();
        }
        return holds;
    }

    QueuePool pool{3};
};

class ManualHarness {
public:
    static constexpr bool isVirtual = true;
    QueueRef makeQueue(std::string label = "test") { return pool.makeQueue(std::move(label)); }

    void runOn(const QueueRef& queue, Task task)
    {
        queue->post(std::move(task));
        pool.runReady();
    }

    bool waitUntil(const QueueRef&, const std::function<bool()>& condition)
    {
        for (int i = 0; i < 10'000 && !condition(); ++i) pool.advance(std::chrono::milliseconds(1));
        return condition();
    }

    ManualQueues pool;
};

} // namespace pelorin
