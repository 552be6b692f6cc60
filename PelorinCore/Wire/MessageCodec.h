#pragma once

#include "PelorinCore/Wire/ByteWriter.h"
#include "PelorinCore/Wire/Message.h"
#include "PelorinCore/Wire/ProtocolError.h"

namespace pelorin {

// Writes the message's fields in wire order. A list too long for its count is our own broken promise.
void encodePayload(const Message& message, ByteWriter& writer);

// Reads one payload and appends its message to messages; a type that we do not know appends nothing, and
// bytes left over behind the last field are ignored. After an error the end of messages is unspecified.
Result<void, ProtocolError> decodePayload(
    std::uint8_t typeCode, ByteView payload, std::vector<Message>& messages);

} // namespace pelorin
