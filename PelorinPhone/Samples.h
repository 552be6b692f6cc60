#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace pelorin {

// The latest measurements of one quantity, for medians and percentiles.
class Samples {
public:
    // Ten minutes at 60 a second; older ones give way.
    static constexpr std::size_t capacity = 36'000;

    void add(double value);
    std::size_t count() const { return values.size(); }
    // The smallest value that at least `fraction` (0 to 1) of all values do not exceed; nothing without
    // values.
    std::optional<double> percentile(double fraction) const;
    std::optional<double> median() const { return percentile(0.5); }

private:
    std::vector<double> values;
    std::size_t oldest = 0; // where the next value goes once all places are taken
};

} // namespace pelorin
