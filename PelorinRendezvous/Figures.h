#pragma once

#include "PelorinNet/Queue/SerialQueue.h"

#include <cstdint>
#include <string>

namespace pelorin {

// What the service has done since it was started, in numbers that name nobody.
struct Figures {
    std::uint64_t connections = 0; // accepted
    std::uint64_t connectionsRefused = 0; // by a limit
    std::uint64_t requestsRefused = 0; // by a limit
    std::uint64_t registrations = 0;
    std::uint64_t registrationsRefused = 0;
    std::uint64_t connectRequests = 0; // passed on to a host
    std::uint64_t accepted = 0;
    std::uint64_t rejected = 0; // by the host
    std::uint64_t unanswered = 0;
    std::uint64_t busy = 0; // turned away before the host was asked
    std::uint64_t signals = 0;
    std::uint64_t ruleBreakers = 0; // closed for what they sent
    std::uint64_t silent = 0; // closed for what they did not send
    std::uint64_t phonesElsewhere = 0; // whose host was at another node
    std::uint64_t guests = 0; // phones that came to another node
    std::uint64_t brokerLosses = 0;

    // How things are now.
    struct Now {
        Duration uptime{};
        std::size_t connections = 0;
        std::size_t hosts = 0;
        std::size_t sessions = 0;
        std::size_t sources = 0;
        bool hasBroker = false; // in reach
    };
    std::string page(const Now& now) const; // for people, plain text
    std::string metrics(const Now& now) const; // for Prometheus
};

} // namespace pelorin
