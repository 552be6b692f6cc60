#pragma once

#include "PelorinHost/Linux/FfmpegCompression.h"
#include "PelorinHost/Linux/X264Compression.h"

#include <thread>

namespace pelorin {

// Picks the encoder for a request. What counts as low latency:
//   H.264   x264, at every size; beyond what it holds, hardware that passed its trial
//   HEVC    hardware that passed its trial, else x265 where the trial shows that it holds the rate at the
//           size with half the time to spare; else tooSlow, or notAvailable without any
// The trials run in the background from the start on and nobody waits for them: a request that comes before
// they are done finds H.264 by x264 only.
class LinuxCompression final : public Compression {
public:
    LinuxCompression();

    Created createSession(const CompressionRequest& request) override;

private:
    X264Compression x264;
    FfmpegCompression others;
    std::jthread trials; // last: joins before the rest goes
};

} // namespace pelorin
