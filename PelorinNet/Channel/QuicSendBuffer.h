#pragma once

#include "PelorinCore/Result.h"

#include <deque>

namespace pelorin {

// The bytes of a stream that go out: those not sent yet, and those sent that the peer may not have, which
// have to stay where they are. A plain value.
class QuicSendBuffer {
public:
    void append(std::vector<Bytes> parts);

    // What is not sent yet, as at most maxViews views. Valid until acknowledged.
    std::vector<ByteView> front(std::size_t maxViews) const;
    void markSent(std::size_t count); // from the front
    void acknowledge(std::uint64_t upTo); // a place in the stream; what lies before it is released
    void drop(); // what is not sent never will be

    std::size_t unsent() const { return std::size_t(total - sent); }
    std::uint64_t sentTotal() const { return sent; }

private:
    std::deque<Bytes> parts; // none empty
    std::uint64_t start = 0; // place in the stream where parts begin
    std::uint64_t sent = 0; // place in the stream up to which all was sent
    std::uint64_t total = 0;
    std::size_t next = 0; // the part in which sent lies
    std::uint64_t nextStart = 0; // place in the stream where that part begins
};

} // namespace pelorin
