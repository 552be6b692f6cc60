#include "PelorinNet/Channel/Channel.h"

namespace pelorin {

void Channel::send(Bytes bytes, Task onSent)
{
    std::vector<Bytes> parts;
    parts.push_back(std::move(bytes));
    send(std::move(parts), std::move(onSent));
}

} // namespace pelorin
