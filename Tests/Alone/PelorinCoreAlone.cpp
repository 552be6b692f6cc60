#include "PelorinCore/Wire/FrameCodec.h"

// Linked with the whole of PelorinCore and nothing else, so that a symbol from elsewhere stops the build.
int main()
{
    using namespace pelorin;
    const Message ping = message::Ping{1, 2};
    const auto messages = FrameDecoder{}.feed(encodeFrame(ping));
    return messages && *messages == std::vector{ping} ? 0 : 1;
}
