#include "PelorinPhone/Samples.h"

#include <algorithm>
#include <cmath>

namespace pelorin {

void Samples::add(double value)
{
    if (values.size() < capacity) {
        values.push_back(value);
        return;
    }
    values[oldest] = value;
    oldest = (oldest + 1) % capacity;
}

std::optional<double> Samples::percentile(double fraction) const
{
    if (values.empty()) return std::nullopt;
    const double size = static_cast<double>(values.size());
    const auto rank = static_cast<std::size_t>(std::clamp(std::ceil(fraction * size), 1.0, size));
    std::vector<double> sorted = values;
    const auto place = sorted.begin() + static_cast<std::ptrdiff_t>(rank - 1);
    std::nth_element(sorted.begin(), place, sorted.end());
    return *place;
}

} // namespace pelorin
