#pragma once

#include <string>

namespace pelorin {

// A failure of the network code; the description is logged or shown as it is.
struct NetError {
    std::string description;
    bool operator==(const NetError&) const = default;
};

} // namespace pelorin
