#pragma once

#include "PelorinNet/Queue/QueuePool.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <thread>
#include <vector>

namespace pelorin {

using EngineRef = std::shared_ptr<QueuePool::Engine>;
using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;

// The I/O context and its threads, for the sources of this module that speak Asio. Every object that holds an
// I/O object (timer, socket) also holds the engine, declared before it, so that the context goes last;
// handlers that wait in the context hold such objects weakly, or strongly where only stop shall release them.
struct QueuePool::Engine : std::enable_shared_from_this<QueuePool::Engine> {
    explicit Engine(int threadCount);

    // Joins the threads and destroys every handler that waits. I/O objects may be destroyed afterwards, on
    // any thread; nothing runs any more.
    void stop();
    bool isStopped() const { return stopped; }

    struct Context : boost::asio::io_context {
        using io_context::io_context;
        void discardHandlers() { shutdown(); }
    };
    Context context;

private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work;
    std::vector<std::thread> threads;
    std::atomic<bool> stopped = false;
};

// The strand of a queue made by a QueuePool; another kind of queue stops the program.
const Strand& strandOf(const SerialQueue& queue);

} // namespace pelorin
