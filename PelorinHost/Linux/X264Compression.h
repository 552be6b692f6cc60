#pragma once

#include "PelorinHost/Platform/Compression.h"

#include <string>

namespace pelorin {

// H.264 in software, by x264: every picture comes out within its own encode, the bitrate follows without a
// keyframe, and macroblocks outside the damage cost next to nothing. Real-time on any machine we run on, so
// it counts as low latency.
class X264Compression final : public Compression {
public:
    struct Tuning {
        std::string preset = "ultrafast";
        int threads = 0; // sliced threads; 0: by picture size and processors
    };

    X264Compression() = default;
    explicit X264Compression(Tuning chosen) : tuning(std::move(chosen)) {}

    // notAvailable for another codec, badParameter for a size that is odd or out of range.
    Created createSession(const CompressionRequest& request) override;

private:
    Tuning tuning;
};

} // namespace pelorin
