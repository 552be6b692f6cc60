#pragma once

#include "PelorinCore/Access/TailscaleWhois.h"

#include <vector>

namespace pelorin {

// Who may come in over the tailnet. Names are compared whole and without regard to case.
struct AccessPolicy {
    std::vector<std::string> allowedLoginNames; // empty admits nobody, so that a lost setting opens nothing
    std::vector<std::string> allowedNodeNames; // empty: any device of an allowed user

    bool permits(const TailscaleWhois& whois) const;

    bool operator==(const AccessPolicy&) const = default;
};

} // namespace pelorin
