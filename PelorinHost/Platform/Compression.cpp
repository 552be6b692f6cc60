#include "PelorinHost/Platform/Compression.h"

namespace pelorin {

std::string nameOf(const CompressionProperty& property)
{
    // In the order of the variant's alternatives.
    static constexpr const char* names[]
        = {"RealTime", "AllowFrameReordering", "ProfileLevel", "ExpectedFrameRate", "MaxKeyFrameInterval",
            "MaxKeyFrameIntervalDuration", "AverageBitRate", "DataRateLimits"};
    static_assert(std::size(names) == std::variant_size_v<CompressionProperty>);
    return names[property.index()];
}

} // namespace pelorin
