// Relayed datagrams: what is read is a part of what came, and is written as it came.

#include "PelorinNet/Stun/ChannelData.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    const ByteView datagram{data, size};
    const auto parsed = ChannelData::parse(datagram);
    if (!parsed) return 0;
    require(ChannelData::channelRange.contains(parsed->channel), "a channel is within its range");
    const Bytes framed = ChannelData::frame(parsed->channel, parsed->payload);
    const std::size_t unpadded = ChannelData::headerSize + parsed->payload.size();
    require(framed.size() % 4 == 0 && framed.size() - unpadded < 4, "padding reaches the next four bytes");
    require(std::ranges::equal(ByteView(framed).first(unpadded), datagram.first(unpadded)),
        "what is read is written as it came");
    return 0;
}
