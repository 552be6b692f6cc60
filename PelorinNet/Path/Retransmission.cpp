#include "PelorinNet/Path/Retransmission.h"

#include <utility>

namespace pelorin {

Retransmission::Retransmission(
    QueueRef newQueue, const Delays& newDelays, std::function<void()> newSend, Task newOnTimeout)
    : queue(std::move(newQueue)),
      delays(newDelays),
      send(std::move(newSend)),
      onTimeout(std::move(newOnTimeout))
{
    advance();
}

void Retransmission::advance()
{
    if (sent == delays.size()) return std::exchange(onTimeout, nullptr)();
    send();
    timer = queue->after(delays[sent++], [this] { advance(); });
}

} // namespace pelorin
