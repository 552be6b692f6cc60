#include "PelorinNet/Channel/QuicSendBuffer.h"

#include <utility>

namespace pelorin {

void QuicSendBuffer::append(std::vector<Bytes> newParts)
{
    for (auto& part : newParts) {
        total += part.size();
        if (!part.empty()) parts.push_back(std::move(part));
    }
}

std::vector<ByteView> QuicSendBuffer::front(std::size_t maxViews) const
{
    std::vector<ByteView> views;
    std::size_t skipped = std::size_t(sent - nextStart);
    for (std::size_t i = next; i < parts.size() && views.size() < maxViews; ++i)
        views.push_back(ByteView(parts[i]).subspan(std::exchange(skipped, 0)));
    return views;
}

void QuicSendBuffer::markSent(std::size_t count)
{
    require(count <= unsent(), "more bytes sent than there were");
    sent += count;
    while (next < parts.size() && nextStart + parts[next].size() <= sent) nextStart += parts[next++].size();
}

void QuicSendBuffer::acknowledge(std::uint64_t upTo)
{
    while (next > 0 && start + parts.front().size() <= upTo) {
        start += parts.front().size();
        parts.pop_front();
        --next;
    }
}

void QuicSendBuffer::drop()
{
    total = sent;
    const bool isCut = sent > nextStart; // the part in which sent lies has bytes on their way
    parts.resize(next + (isCut ? 1 : 0));
}

} // namespace pelorin
