#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinPhone/DecodedPicture.h"

#include <memory>
#include <string>

namespace pelorin {

struct DecodeError {
    std::string description;
};

// Decodes H.264 and HEVC, one picture out for each access unit in, without holding any back. After an error
// the decoder is ready for a keyframe; deltas before it fail or show garbage, so the caller waits for one.
// Confined to the queue that its owner gives it. Owned by the VideoReceiver.
class VideoDecoder {
public:
    VideoDecoder();
    ~VideoDecoder();

    // Parameter sets without length or start code, as videoFormat carries them. Costs nothing when they are
    // those in force, since the host repeats them before every keyframe.
    Result<void, DecodeError> setFormat(VideoCodec codec, const std::vector<Bytes>& parameterSets);
    // NAL units behind their 4-byte lengths. Fails on anything that is not one whole undamaged 4:2:0 picture.
    Result<DecodedPicture, DecodeError> decode(Bytes accessUnit);

private:
    struct Context;
    std::unique_ptr<Context> context;
    message::VideoFormat format;
};

} // namespace pelorin
