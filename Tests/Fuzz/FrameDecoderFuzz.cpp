// Hostile byte streams in hostile chunks. What a decoder that succeeds promises is asserted here: cuts make
// no difference, the first error is the same wherever it is met, and a message survives its own encoding.

#include "PelorinCore/Wire/FrameCodec.h"

#include <algorithm>
#include <iterator>
#include <optional>

namespace pelorin {
namespace {

// Compared as bytes, because a NaN equals nothing.
Bytes reencoded(const std::vector<Message>& messages)
{
    Bytes stream;
    for (const Message& message : messages) {
        const Bytes frame = encodeFrame(message);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    return stream;
}

struct Outcome {
    std::vector<Message> messages; // of the calls that succeeded
    std::optional<ProtocolError> error;
};

Outcome decodeInChunks(ByteView stream, ByteView chunkSizes)
{
    FrameDecoder decoder;
    Outcome outcome;
    for (std::size_t turn = 0; !stream.empty(); ++turn) {
        const std::size_t wanted
            = chunkSizes.empty() ? stream.size() : chunkSizes[turn % chunkSizes.size()] + 1U;
        const ByteView chunk = stream.first(std::min(wanted, stream.size()));
        stream = stream.subspan(chunk.size());
        auto decoded = decoder.feed(chunk);
        if (!decoded) {
            outcome.error = decoded.error();
            return outcome;
        }
        std::ranges::move(*decoded, std::back_inserter(outcome.messages));
    }
    return outcome;
}

void check(ByteView stream, ByteView chunkSizes)
{
    const Outcome whole = decodeInChunks(stream, {});
    const Outcome cut = decodeInChunks(stream, chunkSizes);
    require(cut.error == whole.error, "cuts do not change how a stream ends");
    const Bytes bytes = reencoded(cut.messages);
    if (!whole.error) require(bytes == reencoded(whole.messages), "cuts do not change the messages");

    const Outcome again = decodeInChunks(bytes, {});
    require(!again.error, "what we encode can be decoded");
    require(again.messages.size() == cut.messages.size(), "a frame holds one message");
    require(reencoded(again.messages) == bytes, "a message survives its encoding");
}

} // namespace
} // namespace pelorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const pelorin::ByteView input{data, size};
    const std::size_t cutBytes = std::min<std::size_t>(4, size);
    pelorin::check(input.subspan(cutBytes), input.first(cutBytes));
    return 0;
}
