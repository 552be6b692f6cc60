#pragma once

#include "PelorinHost/HostServer.h"

namespace pelorin {

// What `pelorin-host status` tells.
struct StatusReport {
    HostServer::Status server;
    std::vector<std::string> allowedLogins;
    std::optional<std::string> rendezvous; // absent: not registered
    std::vector<std::string> settingsProblems; // for people
    bool isTestMode = false;
    bool requiresPairing = false;
    std::optional<std::chrono::seconds> pairingOpenFor; // absent: no pairing is on offer
    bool hasReviewCode = false; // a standing one, in the settings
    std::size_t pairedDevices = 0;

    std::string toJSON() const; // indented, for programs
};

// The same for people, from the JSON of a running host. Nothing when it is no such report.
std::optional<std::string> readableStatus(const std::string& json);

} // namespace pelorin
