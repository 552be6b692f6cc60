#pragma once

#include "PelorinCore/Wire/Message.h"

namespace pelorin {

enum class SessionState { beforeHello, running };

enum class MessageRule {
    handle,
    ignore, // not for this state, or a message that only the host sends
    fault, // the phone has lost its way; the session ends
};

// Which message is legal in which state.
MessageRule ruleFor(MessageType type, SessionState state);

} // namespace pelorin
