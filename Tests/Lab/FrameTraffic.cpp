#include "Tests/Lab/FrameTraffic.h"

#include <algorithm>
#include <cstring>

namespace pelorin::lab {
namespace {

constexpr std::size_t remembered = 60; // latencies
constexpr std::size_t largestFrame = 1'000'000; // bytes

struct Header {
    std::uint64_t size; // of the frame, this included
    std::uint64_t number; // from 0
    SteadyTime::rep sentAt;
};

} // namespace

FrameTraffic::FrameTraffic(
    std::unique_ptr<Channel> newChannel, QueueRef newQueue, const Settings& newSettings)
    : queue(std::move(newQueue)),
      settings(newSettings),
      channel(std::move(newChannel))
{
    require(settings.frameBytes > sizeof(Header) && settings.frameBytes <= largestFrame, "a frame's size");
    channel->onBytes = [this](ByteView bytes) { receive(bytes); };
    channel->onClosed = [this](std::optional<NetError> error) {
        pace.cancel();
        if (onClosed) onClosed(std::move(error));
    };
    channel->start(queue);
    pace = queue->every(settings.interval, [this] { sendFrame(); });
}

void FrameTraffic::sendFrame()
{
    if (channel->unsentBytes() > settings.mostUnsent) {
        ++count.leftOut;
        return;
    }
    const Header header{settings.frameBytes, count.sent++, queue->now().time_since_epoch().count()};
    Bytes frame(settings.frameBytes, std::uint8_t(header.number));
    std::memcpy(frame.data(), &header, sizeof header);
    channel->send(std::move(frame));
}

void FrameTraffic::receive(ByteView bytes)
{
    while (!bytes.empty() && !count.isBroken) {
        std::size_t wanted = sizeof(Header);
        if (partial.size() >= wanted) {
            Header header;
            std::memcpy(&header, partial.data(), sizeof header);
            count.isBroken = header.size <= sizeof header || header.size > largestFrame;
            if (count.isBroken) return;
            wanted = header.size;
        }
        const auto taken = std::min(bytes.size(), wanted - partial.size());
        partial.insert(partial.end(), bytes.begin(), bytes.begin() + std::ptrdiff_t(taken));
        bytes = bytes.subspan(taken);
        if (wanted > sizeof(Header) && partial.size() == wanted) frameArrived();
    }
}

void FrameTraffic::frameArrived()
{
    Header header;
    std::memcpy(&header, partial.data(), sizeof header);
    const auto isFilling = [&](std::uint8_t byte) { return byte == std::uint8_t(header.number); };
    if (header.number != count.received
        || !std::all_of(partial.begin() + sizeof header, partial.end(), isFilling))
        count.isBroken = true;
    partial.clear();

    const auto now = queue->now();
    if (lastArrival) longestGap = std::max(longestGap, now - *lastArrival);
    lastArrival = now;
    if (latencies.size() < remembered) latencies.emplace_back();
    latencies[count.received++ % remembered] = now - SteadyTime(Duration(header.sentAt));
}

FrameTraffic::Figures FrameTraffic::figures() const
{
    Figures now = count;
    now.longestGap = longestGap;
    if (lastArrival) now.longestGap = std::max(now.longestGap, queue->now() - *lastArrival);
    if (latencies.empty()) return now;
    auto sorted = latencies;
    std::ranges::sort(sorted);
    now.latency = sorted[sorted.size() / 2];
    now.latencyP95 = sorted[sorted.size() * 95 / 100];
    return now;
}

} // namespace pelorin::lab
