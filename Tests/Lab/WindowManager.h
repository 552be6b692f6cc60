#pragma once

#include "Tests/Lab/XServer.h"

namespace pelorin::lab {

// Starts a window manager on that server and waits until it has started. A window that is mapped while it
// still starts may be overlooked, and its owner would wait for ever.
std::unique_ptr<Process> startWindowManager(const XServer& server);

} // namespace pelorin::lab
