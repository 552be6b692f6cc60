#pragma once

#include "PelorinCore/Wire/Message.h"

#include <memory>

namespace pelorin::lab {

// What a host's encoder gives out, from a real one: parameter sets apart, NAL units behind 4-byte lengths,
// every picture at once. For tests of what receives it.
class PictureEncoder {
public:
    PictureEncoder(VideoCodec codec, int widthPx, int heightPx);
    ~PictureEncoder();

    message::VideoFormat format() const;
    // A picture of one grey, but for a lighter square at 16, 16 of side 32 when the picture has room for it;
    // so that deltas are not empty, the square moves right with every picture.
    message::VideoFrame encode(std::uint8_t luma, bool asKeyframe = false);

private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace pelorin::lab
