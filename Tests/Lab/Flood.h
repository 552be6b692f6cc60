#pragma once

#include "PelorinNet/Stun/SocketAddress.h"
#include "Tests/Lab/NetworkNamespace.h"

#include <atomic>
#include <thread>

namespace pelorin::lab {

// Datagrams that nobody asked for, from many ports in a network, as long as it lives: half of them noise,
// half STUN checks of somebody who guesses.
class Flood {
public:
    Flood(const NetworkNamespace& from, const SocketAddress& to, int perSecond);
    ~Flood();
    std::uint64_t sent() const { return count; }

private:
    void run(const SocketAddress& to, int perSecond);

    std::atomic<bool> isOver = false;
    std::atomic<std::uint64_t> count = 0;
    std::thread thread;
};

} // namespace pelorin::lab
