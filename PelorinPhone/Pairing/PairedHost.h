#pragma once

#include "PelorinCore/Pairing/Key.h"

#include <optional>
#include <string>

namespace pelorin {

// Where a host is reached on its tailnet.
struct HostPlace {
    std::string address; // tried first: it needs no name service
    std::optional<std::string> dnsName;
    std::uint16_t port = 0;
    bool operator==(const HostPlace&) const = default;
};

// A host that this phone is paired with.
struct PairedHost {
    std::string name; // as the host calls itself, fit for a menu
    HostPlace place;
    PelorinTLS::Key key; // what the host issued, "dev-…"
    bool operator==(const PairedHost&) const = default;
};

} // namespace pelorin
