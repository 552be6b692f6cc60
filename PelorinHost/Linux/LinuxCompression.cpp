#include "PelorinHost/Linux/LinuxCompression.h"

#include <malloc.h>

namespace pelorin {
namespace {

// What x264 holds on two processors beside the application being shown: 1920x1200 at 60.
constexpr double softwarePixelsPerSecond = 1920.0 * 1200 * 60;

std::vector<FfmpegEncoder> candidates()
{
    auto encoders = hardwareEncoders();
    encoders.push_back(x265Encoder());
    return encoders;
}

bool isBeyondSoftware(const CompressionRequest& request)
{
    const double pixels = static_cast<double>(request.widthPx) * request.heightPx;
    return pixels * request.frameRate > softwarePixelsPerSecond;
}

} // namespace

// Afterwards the memory that the trials took goes back to the system: a host that waits needs a third of it.
LinuxCompression::LinuxCompression()
    : others(candidates()),
      trials([this] {
          others.probe();
          ::malloc_trim(0);
      })
{
}

Compression::Created LinuxCompression::createSession(const CompressionRequest& request)
{
    if (request.codec == VideoCodec::hevc) return others.createSession(request);
    if (isBeyondSoftware(request)) {
        auto created = others.createSession(request);
        if (created.session) return created;
    }
    return x264.createSession(request);
}

} // namespace pelorin
