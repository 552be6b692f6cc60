#pragma once

#include <string>

namespace pelorin {

// A platform's refusal, in its own words, for the log.
struct PlatformError {
    std::string description;
    bool operator==(const PlatformError&) const = default;
};

} // namespace pelorin
