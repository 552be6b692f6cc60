#pragma once

#include <optional>
#include <sys/types.h>

namespace pelorin {

// The user at the other end of a connected local socket.
std::optional<uid_t> peerUser(int socket);

} // namespace pelorin
