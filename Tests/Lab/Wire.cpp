#include "Tests/Lab/Wire.h"

#include "PelorinCore/Result.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;

constexpr auto longestQueue = 200ms; // what does not leave within it is lost, as at a slow router
constexpr std::size_t largestPacket = 2048; // bytes; the devices' packets have 1500
constexpr int mostAtOnce = 64; // packets taken before those that are due are given on

// A device without offloads: the kernel cuts merged runs into packets before they get here, so that a loss is
// the loss of one.
int openDevice(const Wire::Plug& plug)
{
    int fd = -1;
    plug.network.run([&] {
        fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ifreq request{};
        std::strncpy(request.ifr_name, plug.device.c_str(), IFNAMSIZ - 1);
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        require(fd >= 0 && ioctl(fd, TUNSETIFF, &request) == 0, "a tunnel device");
        NetworkNamespace::raise(plug.device);
    });
    return fd;
}

} // namespace

Wire::Wire(const Plug& one, const Plug& other)
{
    const int fds[] = {openDevice(one), openDevice(other)};
    ways[0] = {.from = fds[0], .to = fds[1]};
    ways[1] = {.from = fds[1], .to = fds[0]};
    wake = eventfd(0, EFD_CLOEXEC);
    thread = std::thread([this] { carry(); });
}

Wire::~Wire()
{
    const std::uint64_t one = 1;
    require(write(wake, &one, sizeof one) == sizeof one, "eventfd");
    thread.join();
    close(wake);
    for (const Way& way : ways) close(way.from);
}

void Wire::set(const Quality& newQuality)
{
    const std::lock_guard guard(lock);
    quality = newQuality;
}

void Wire::cut(bool isCut)
{
    const std::lock_guard guard(lock);
    quality.isCut = isCut;
}

Wire::Counts Wire::counts() const
{
    const std::lock_guard guard(lock);
    return count;
}

void Wire::carry()
{
    prctl(PR_SET_TIMERSLACK, 1); // a timer of the wire's own would blur its delay
    pollfd watched[] = {{wake, POLLIN, 0}, {ways[0].from, POLLIN, 0}, {ways[1].from, POLLIN, 0}};
    for (;;) {
        auto next = Clock::time_point::max();
        for (const Way& way : ways)
            if (!way.packets.empty()) next = std::min(next, way.packets.front().due);
        const auto left = std::max<Clock::duration>(next - Clock::now(), 0ns);
        const timespec timeout{left / 1s, (left % 1s) / 1ns};
        ppoll(watched, std::size(watched), next == Clock::time_point::max() ? nullptr : &timeout, nullptr);
        if (watched[0].revents) return;
        for (Way& way : ways) {
            take(way);
            give(way);
        }
    }
}

void Wire::take(Way& way)
{
    std::uint8_t bytes[largestPacket];
    for (int taken = 0; taken < mostAtOnce; ++taken) {
        const ssize_t size = read(way.from, bytes, sizeof bytes);
        if (size <= 0) return;
        const auto due = arrival(way, static_cast<std::size_t>(size));
        if (due) way.packets.push_back({*due, {bytes, bytes + size}});
    }
}

// When a packet that is taken now gets there, if it does.
std::optional<Wire::Clock::time_point> Wire::arrival(Way& way, std::size_t size)
{
    const std::lock_guard guard(lock);
    ++count.taken;
    ++count.lost;
    if (quality.isCut || std::uniform_real_distribution<>()(random) < quality.loss) return std::nullopt;
    const auto now = Clock::now();
    auto leaves = now;
    if (quality.bitsPerSecond > 0) {
        leaves = std::max(now, way.freeAt);
        if (leaves - now > longestQueue) return std::nullopt;
        const std::chrono::duration<double> sending(static_cast<double>(size) * 8 / quality.bitsPerSecond);
        way.freeAt = leaves += std::chrono::duration_cast<Clock::duration>(sending);
    }
    --count.lost;
    const std::chrono::microseconds extra(
        std::uniform_int_distribution<std::int64_t>(0, quality.jitter.count())(random));
    return way.lastDue = std::max(way.lastDue, leaves + quality.delay + extra);
}

void Wire::give(Way& way)
{
    const auto now = Clock::now();
    for (; !way.packets.empty() && way.packets.front().due <= now; way.packets.pop_front()) {
        const auto& bytes = way.packets.front().bytes;
        // What the device does not take is lost, as on any cable.
        [[maybe_unused]] const auto written = write(way.to, bytes.data(), bytes.size());
    }
}

} // namespace pelorin::lab
