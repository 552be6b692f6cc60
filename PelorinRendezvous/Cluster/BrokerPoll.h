#pragma once

#include "PelorinNet/OwnedDescriptor.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

namespace pelorin {

// Where the thread that talks to the broker waits: for the connection's socket, which comes and goes, and for
// a word from other threads. Any thread, but for wait.
class BrokerPoll {
public:
    struct Ready {
        bool canRead = false;
        bool canWrite = false;
    };

    BrokerPoll();

    void wake();
    void watch(int socket); // not ours; to be read from the first
    void wantRead(bool isWanted);
    void wantWrite(bool isWanted);
    void unwatch();
    bool wantsWrite() const;

    // Until the socket is ready for what is wanted, somebody wakes us, or time is up. One thread alone.
    Ready wait(std::optional<std::chrono::milliseconds> atMost = std::nullopt);

private:
    short wanted() const;

    OwnedDescriptor waked, waker; // the ends of a pipe
    std::atomic<bool> isWoken = false; // by a byte in it
    std::atomic<std::thread::id> waiter; // need not be woken by itself
    mutable std::mutex mutex; // guards the next three
    int socket = -1;
    bool isReadWanted = false;
    bool isWriteWanted = false;
};

} // namespace pelorin
