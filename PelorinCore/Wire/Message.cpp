#include "PelorinCore/Wire/Message.h"

namespace pelorin {

MessageType typeOf(const Message& message)
{
    return std::visit([](const auto& alternative) { return alternative.type; }, message);
}

} // namespace pelorin
