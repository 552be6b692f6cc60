#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <deque>

namespace pelorin {

// The bytes of a stream that wait to be taken, in order, with who wants to know when. A plain value: it never
// calls anybody.
class SendQueue {
public:
    void append(std::vector<Bytes> parts, Task onSent);

    // What waits, as at most maxViews views, front first. Valid until the next change.
    std::vector<ByteView> front(std::size_t maxViews) const;
    // Removes count bytes, and the ends of sends reached by that, whose onSent it returns in order.
    std::vector<Task> take(std::size_t count);
    std::vector<Task> takeTasks(); // those of all that waits; the bytes stay

    bool isEmpty() const { return entries.empty(); }
    std::size_t byteCount() const { return waiting; }

private:
    struct Entry {
        Bytes bytes;
        Task onSent; // set on the last part of a send only
    };
    std::deque<Entry> entries;
    std::size_t frontTaken = 0; // of the first entry
    std::size_t waiting = 0;
};

} // namespace pelorin
