#pragma once

#include "Tests/Lab/NetworkNamespace.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

namespace pelorin::lab {

// A long cable between two networks of the lab: a tunnel device in each, and a thread that carries the
// packets from one to the other, late, or not at all. Packets never overtake each other.
class Wire {
public:
    using Clock = std::chrono::steady_clock;

    struct Quality { // of each way
        std::chrono::microseconds delay{0};
        std::chrono::microseconds jitter{0}; // more delay, evenly distributed
        double loss = 0; // share of the packets
        double bitsPerSecond = 0; // 0: unlimited
        bool isCut = false; // everything is lost
    };

    struct Plug {
        const NetworkNamespace& network;
        std::string device; // its name, made here
    };
    Wire(const Plug& one, const Plug& other);
    ~Wire();
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    void set(const Quality& newQuality); // packets under way keep the old one
    void cut(bool isCut);

    struct Counts { // both ways
        std::uint64_t taken = 0;
        std::uint64_t lost = 0; // of these
    };
    Counts counts() const;

private:
    struct Packet {
        Clock::time_point due;
        std::vector<std::uint8_t> bytes;
    };
    struct Way {
        int from = -1;
        int to = -1;
        Clock::time_point freeAt{}; // the packets before have left then
        Clock::time_point lastDue{};
        std::deque<Packet> packets{};
    };

    void carry();
    void take(Way& way);
    void give(Way& way);
    std::optional<Clock::time_point> arrival(Way& way, std::size_t size);

    mutable std::mutex lock; // guards quality and count
    Quality quality;
    Counts count;
    Way ways[2];
    int wake = -1; // readable: the end
    std::mt19937 random; // with its fixed seed: the same packets are lost in each run
    std::thread thread;
};

} // namespace pelorin::lab
