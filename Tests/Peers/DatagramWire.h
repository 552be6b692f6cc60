#pragma once

#include "PelorinNet/Path/UDPSocket.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <random>

namespace pelorin {

// A network between a client and a target, both on the loopback interface: what either sends arrives later,
// in part, or not. Works on any kind of queue, the same each time. Everything on that queue.
class DatagramWire {
public:
    struct Quality {
        Duration delay{}; // one way
        Duration jitter{}; // at most so much more, evenly spread
        bool keepsOrder = true; // though delays vary
        double loss = 0; // share of the datagrams
        double bitsPerSecond = 0; // each way; 0: unlimited
        std::size_t queueBytes = 128 << 10; // what waits for a slow line; more is lost
    };
    struct Counters {
        std::uint64_t carried = 0, lost = 0, overflowed = 0;
    };
    enum class Way { toTarget, toClient };

    DatagramWire(QueueRef newQueue, const SocketAddress& newTarget)
        : queue(std::move(newQueue)),
          target(newTarget),
          near(UDPSocket::open("127.0.0.1", 0, queue).value())
    {
        near->onReceive = [this](ByteView datagram, const SocketAddress& source) {
            client = source;
            take(Way::toTarget, datagram);
        };
        near->onBatchEnd = [this] { pass(); };
        faceTargetFrom("127.0.0.1");
    }
    DatagramWire(const DatagramWire&) = delete;
    DatagramWire& operator=(const DatagramWire&) = delete;

    // Sees each datagram before the wire does; may change it, and makes it vanish by emptying it.
    std::function<void(Bytes& datagram, Way)> tap;
    Quality quality;

    const SocketAddress& address() const { return near->localAddress(); } // for the client
    const Counters& counters() const { return counts; }
    // The target sees the client under another address from now on, and no more under the one before.
    void faceTargetFrom(const std::string& host)
    {
        far = UDPSocket::open(host, 0, queue).value();
        far->onReceive = [this](ByteView datagram, const SocketAddress&) { take(Way::toClient, datagram); };
        far->onBatchEnd = [this] { pass(); };
    }
    void send(Way way, ByteView datagram) { deliver(way, datagram); } // at once, past all of the above

private:
    void take(Way way, ByteView datagram)
    {
        Bytes bytes(datagram.begin(), datagram.end());
        if (tap) tap(bytes, way);
        if (bytes.empty()) return;
        if (std::uniform_real_distribution<>(0, 1)(random) < quality.loss) {
            ++counts.lost;
            return;
        }
        if (const auto due = dueTime(way, bytes.size()))
            underway.emplace(*due, std::pair(way, std::move(bytes)));
        else
            ++counts.overflowed;
    }

    std::optional<SteadyTime> dueTime(Way way, std::size_t size)
    {
        SteadyTime left = queue->now();
        if (quality.bitsPerSecond > 0) {
            auto& lineFree = lineFreeAt[way == Way::toTarget];
            lineFree = std::max(lineFree, left);
            const std::chrono::duration<double> backlog = lineFree - left;
            if (backlog.count() * quality.bitsPerSecond / 8 > double(quality.queueBytes)) return std::nullopt;
            lineFree += std::chrono::duration_cast<Duration>(
                std::chrono::duration<double>(double(size) * 8 / quality.bitsPerSecond));
            left = lineFree;
        }
        const Duration more = quality.jitter > Duration::zero()
            ? Duration(std::uniform_int_distribution<Duration::rep>(0, quality.jitter.count())(random))
            : Duration::zero();
        SteadyTime due = left + quality.delay + more;
        auto& last = lastDue[way == Way::toTarget];
        if (quality.keepsOrder) due = std::max(due, last);
        last = due;
        return due;
    }

    // What is due goes on its way; the timer waits for the next.
    void pass()
    {
        while (!underway.empty() && underway.begin()->first <= queue->now()) {
            const auto [way, datagram] = std::move(underway.extract(underway.begin()).mapped());
            deliver(way, datagram);
        }
        if (underway.empty()) return timer.cancel();
        timer = queue->after(underway.begin()->first - queue->now(), [this] { pass(); });
    }

    void deliver(Way way, ByteView datagram)
    {
        ++counts.carried;
        if (way == Way::toTarget)
            far->send(datagram, target);
        else if (client)
            near->send(datagram, *client);
    }

    const QueueRef queue;
    const SocketAddress target;
    std::unique_ptr<UDPSocket> near, far;
    std::optional<SocketAddress> client;
    std::multimap<SteadyTime, std::pair<Way, Bytes>> underway;
    std::array<SteadyTime, 2> lineFreeAt{}, lastDue{};
    std::minstd_rand random{7};
    Counters counts;
    Subscription timer;
};

} // namespace pelorin
