#pragma once

#include "PelorinCore/Pairing/Key.h"
#include "PelorinNet/Rendezvous/PhoneConnector.h"

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

// A host that this phone is paired with, over the tailnet, through a rendezvous service, or both.
struct PairedHost {
    std::string name; // as the host calls itself, fit for a menu
    HostPlace place; // no address: only the service leads there
    PelorinTLS::Key key; // what the host issued, "dev-…"; empty like place
    std::optional<RemotePlace> remote{};
    bool operator==(const PairedHost&) const = default;

    bool hasTailnet() const { return !place.address.empty(); }
};

} // namespace pelorin
