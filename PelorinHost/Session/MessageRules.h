#pragma once

#include "PelorinCore/Wire/Message.h"

namespace pelorin {

enum class SessionState {
    beforeHello,
    pairing, // on a channel that was set up with a pairing link's key, and serves nothing else
    running,
};

enum class MessageRule {
    handle,
    ignore, // not for this state, or a message that only the host sends
    refuse, // not on this connection; the phone is told, and the session ends
    fault, // the phone has lost its way; the session ends
};

// Which message is legal in which state.
MessageRule ruleFor(MessageType type, SessionState state);

} // namespace pelorin
