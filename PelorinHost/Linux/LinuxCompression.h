#pragma once

#include "PelorinHost/Linux/X264Compression.h"

namespace pelorin {

// Picks the encoder for a request. Low latency counts: H.264 by x264, at every size.
class LinuxCompression final : public Compression {
public:
    Created createSession(const CompressionRequest& request) override;

private:
    X264Compression x264;
};

} // namespace pelorin
