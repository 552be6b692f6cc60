// Access units from a hostile host: whatever is read as stamps must be exactly what we would have written.

#include "PelorinCore/Wire/FrameStamps.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    const ByteView accessUnit{data, size};
    for (const VideoCodec codec : {VideoCodec::h264, VideoCodec::hevc}) {
        const auto stamps = FrameStamps::parse(codec, accessUnit);
        if (!stamps) continue;
        const Bytes expected = stamps->encodeSEI(codec);
        require(size >= expected.size() && std::ranges::equal(expected, accessUnit.first(expected.size())),
            "stamps that are read are stamps as written");
    }
    return 0;
}
