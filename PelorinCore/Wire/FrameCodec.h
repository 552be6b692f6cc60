#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinCore/Wire/ProtocolError.h"

namespace pelorin {

// A frame is a type byte, a big-endian 32-bit payload length, and the payload.
inline constexpr std::size_t frameHeaderSize = 5;
inline constexpr std::uint32_t maxPayloadSize = 16'777'216;

// The whole frame of one message.
Bytes encodeFrame(const Message& message);

// Everything of a videoFrame's frame that stands before its data bytes, for data of dataSize bytes in all:
// the access unit itself is written behind it without being copied.
Bytes encodeVideoFrameHead(bool isKeyframe, std::uint64_t ptsMicros, std::size_t dataSize);

// Cuts a byte stream into messages. One per connection; after an error the connection is done for.
class FrameDecoder {
public:
    // Takes the next chunk as it came and returns the messages it completed, in stream order. Frames of
    // unknown type are skipped. On an error nothing of this call is returned.
    Result<std::vector<Message>, ProtocolError> feed(ByteView bytes);

private:
    void keepOnly(ByteView rest);

    Bytes buffer; // received, not yet consumed as whole frames
};

} // namespace pelorin
