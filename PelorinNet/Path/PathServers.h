#pragma once

#include "PelorinNet/Queue/SerialQueue.h"
#include "PelorinNet/Stun/SocketAddress.h"

#include <string>
#include <vector>

namespace pelorin {

// The servers that help two ends find each other, by name or address.
struct PathServers {
    struct Server {
        std::string host;
        std::uint16_t port = 3478;
        bool operator==(const Server&) const = default;
    };
    // Calls done on that queue with the addresses behind the server's name, none when there are none.
    using Lookup
        = std::function<void(const Server&, QueueRef, std::function<void(std::vector<SocketAddress>)> done)>;

    std::vector<Server> stun; // tell how they see us; the first two are asked
    std::vector<Server> turn; // the first is the primary relay, the next the backup; one alone serves as both
};

} // namespace pelorin
