#pragma once

#include "PelorinNet/Path/DatagramCalls.h"

#include <sys/uio.h>
#include <vector>

namespace pelorin {

// Datagrams that wait to be sent, in order; runs of equal size to one peer are joined, so that the kernel
// cuts them apart again at a fraction of the cost. A value that keeps its room from use to use; holds no
// bytes.
class DatagramRuns {
public:
    using Message = datagramCalls::Message;

    void add(std::initializer_list<ByteView> parts, const sockaddr_in& to, bool mayMerge);
    bool isEmpty() const { return runs.empty(); }
    void clear();

    // A message for each run; valid until the next add or clear.
    std::span<Message> messages();
    const sockaddr_in& peer(std::size_t run) const { return runs[run].to; }
    int datagrams(std::size_t run) const { return runs[run].segments; }
    // The datagrams of a run one by one, for a kernel that won't cut it.
    DatagramRuns cut(std::size_t run) const;

private:
    struct Run {
        sockaddr_in to{};
        std::size_t segmentSize = 0; // of each but the last, which may be shorter
        std::size_t size = 0;
        int segments = 0;
        std::size_t firstPart = 0, partCount = 0;
        bool isOpen = false; // more of its size may follow
    };
    bool fits(std::size_t size, const sockaddr_in& to) const;
    void addPart(ByteView part);

    std::vector<Run> runs;
    std::vector<iovec> parts; // of all runs, in order
    std::vector<Message> built;
    struct alignas(cmsghdr) Control {
        std::array<std::uint8_t, datagramCalls::controlSize> bytes;
    };
    std::vector<Control> controls;
};

} // namespace pelorin
