#pragma once

#include "PelorinNet/Path/PathServers.h"

namespace pelorin {

// Asks the system for the IPv4 addresses of a name; blocks, for as long as its servers take.
using NameResolver = std::function<std::vector<SocketAddress>(const std::string& name)>;
std::vector<SocketAddress> resolveBySystem(const std::string& name); // port 0

// Looks up a server's IPv4 addresses, as a PathServers::Lookup: calls done once on that queue, where the
// caller is, with none when there are none or the answer takes longer than 5 s. An address literal is done
// right away, on the queue's next turn. Resolving takes a thread of its own that nobody waits for, so neither
// queue nor pool are held up by a server that doesn't answer. A caller that may be gone by then guards done
// with its Lifetime.
void lookUpName(const PathServers::Server& server, const QueueRef& queue,
    std::function<void(std::vector<SocketAddress>)> done);
void lookUpName(const PathServers::Server& server, const QueueRef& queue,
    std::function<void(std::vector<SocketAddress>)> done, NameResolver resolver);

} // namespace pelorin
