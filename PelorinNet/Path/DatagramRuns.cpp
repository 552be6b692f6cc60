#include "PelorinNet/Path/DatagramRuns.h"

#include <algorithm>

namespace pelorin {
namespace {

// The kernel takes up to 1,024 parts with a message. A datagram adds at most three.
constexpr std::size_t mostParts = 1'000;

} // namespace

void DatagramRuns::add(std::initializer_list<ByteView> datagram, const sockaddr_in& to, bool mayMerge)
{
    std::size_t size = 0;
    for (const ByteView part : datagram) size += part.size();
    if (!mayMerge || !fits(size, to)) runs.push_back({to, size, 0, 0, parts.size(), 0, true});
    Run& run = runs.back();
    run.size += size;
    ++run.segments;
    run.isOpen = size == run.segmentSize && size > 0;
    for (const ByteView part : datagram) addPart(part);
}

bool DatagramRuns::fits(std::size_t size, const sockaddr_in& to) const
{
    if (runs.empty() || size == 0) return false;
    const Run& run = runs.back();
    return run.isOpen && size <= run.segmentSize && run.segments < int(datagramCalls::mostSegments)
        && run.size + size <= datagramCalls::largestMessage && run.partCount < mostParts
        && run.to.sin_port == to.sin_port && run.to.sin_addr.s_addr == to.sin_addr.s_addr;
}

// Datagrams that arrived as one lie side by side and leave as one part.
void DatagramRuns::addPart(ByteView part)
{
    if (part.empty()) return;
    auto* const begin = const_cast<std::uint8_t*>(part.data()); // sending does not write
    Run& run = runs.back();
    if (run.partCount > 0) {
        iovec& last = parts.back();
        if (static_cast<std::uint8_t*>(last.iov_base) + last.iov_len == begin) {
            last.iov_len += part.size();
            return;
        }
    }
    parts.push_back({begin, part.size()});
    ++run.partCount;
}

void DatagramRuns::clear()
{
    runs.clear();
    parts.clear();
}

std::span<DatagramRuns::Message> DatagramRuns::messages()
{
    built.assign(runs.size(), {});
    controls.resize(std::max(controls.size(), runs.size()));
    for (std::size_t i = 0; i < runs.size(); ++i) {
        Run& run = runs[i];
        msghdr& header = built[i].msg_hdr;
        header.msg_name = &run.to;
        header.msg_namelen = sizeof run.to;
        header.msg_iov = parts.data() + run.firstPart;
        header.msg_iovlen = run.partCount;
        if (run.segments > 1)
            datagramCalls::setSegmentSize(header, controls[i].bytes, std::uint16_t(run.segmentSize));
    }
    return built;
}

DatagramRuns DatagramRuns::cut(std::size_t index) const
{
    const Run& run = runs[index];
    DatagramRuns single;
    auto part = parts.begin() + std::ptrdiff_t(run.firstPart);
    std::size_t offset = 0; // within part
    for (std::size_t left = run.size; left > 0;) {
        const std::size_t size = std::min(left, run.segmentSize);
        single.add({}, run.to, false);
        for (std::size_t missing = size; missing > 0;) {
            const std::size_t taken = std::min(missing, part->iov_len - offset);
            single.addPart({static_cast<const std::uint8_t*>(part->iov_base) + offset, taken});
            missing -= taken;
            offset += taken;
            if (offset == part->iov_len) ++part, offset = 0;
        }
        left -= size;
    }
    return single;
}

} // namespace pelorin
