#include "PelorinHost/Linux/LinuxCompression.h"

namespace pelorin {

Compression::Created LinuxCompression::createSession(const CompressionRequest& request)
{
    if (request.codec == VideoCodec::h264) return x264.createSession(request);
    return {compressionStatus::notAvailable, nullptr};
}

} // namespace pelorin
