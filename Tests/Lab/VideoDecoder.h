#pragma once

#include "PelorinHost/Platform/Compression.h"
#include "Tests/Lab/SyntheticPicture.h"

#include <memory>
#include <optional>

namespace pelorin::lab {

struct DecodedPicture {
    int widthPx = 0;
    int heightPx = 0;
    Bytes luma;
    Bytes chroma[2]; // Cb, Cr

    // Decibels against the source over all three planes of a rectangle; 100 when they are equal.
    double psnr(const SyntheticPicture& source, const PixelRect& rect) const;
};

// Plays a stream as the phone does, by libavcodec: parameter sets apart, access units of 4-byte lengths, each
// decoded at once.
class VideoDecoder {
public:
    explicit VideoDecoder(VideoCodec codec);
    ~VideoDecoder();

    void setParameterSets(std::vector<Bytes> sets);
    // Nothing when the decoder refused it or the access unit isn't whole.
    std::optional<DecodedPicture> decode(ByteView accessUnit);
    std::optional<DecodedPicture> decode(const CompressedSample& sample);

private:
    struct Context;
    std::unique_ptr<Context> context;
    std::vector<Bytes> parameterSets;
};

// The NAL units of an access unit, or nothing when the lengths don't add up.
std::optional<std::vector<ByteView>> nalUnits(ByteView accessUnit);
// Whether it carries picture data: no parameter set, delimiter or SEI.
bool isSlice(VideoCodec codec, ByteView nalUnit);
bool hasStartCode(ByteView nalUnit);

} // namespace pelorin::lab
