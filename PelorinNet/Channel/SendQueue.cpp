#include "PelorinNet/Channel/SendQueue.h"

#include <algorithm>
#include <utility>

namespace pelorin {

void SendQueue::append(std::vector<Bytes> parts, Task onSent)
{
    if (parts.empty()) parts.emplace_back();
    for (auto& part : parts) {
        waiting += part.size();
        entries.push_back({std::move(part), {}});
    }
    entries.back().onSent = std::move(onSent);
}

std::vector<ByteView> SendQueue::front(std::size_t maxViews) const
{
    std::vector<ByteView> views;
    views.reserve(std::min(maxViews, entries.size()));
    std::size_t skipped = frontTaken;
    for (const auto& entry : entries) {
        if (views.size() == maxViews) break;
        const ByteView rest = ByteView(entry.bytes).subspan(std::exchange(skipped, 0));
        if (!rest.empty()) views.push_back(rest);
    }
    return views;
}

std::vector<Task> SendQueue::take(std::size_t count)
{
    require(count <= waiting, "more bytes taken than were sent");
    waiting -= count;
    frontTaken += count;
    std::vector<Task> finished;
    while (!entries.empty() && entries.front().bytes.size() <= frontTaken) {
        frontTaken -= entries.front().bytes.size();
        if (entries.front().onSent) finished.push_back(std::move(entries.front().onSent));
        entries.pop_front();
    }
    return finished;
}

std::vector<Task> SendQueue::takeTasks()
{
    std::vector<Task> tasks;
    for (auto& entry : entries)
        if (entry.onSent) tasks.push_back(std::exchange(entry.onSent, nullptr));
    return tasks;
}

} // namespace pelorin
