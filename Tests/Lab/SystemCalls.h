#pragma once

#include <sys/types.h>

namespace pelorin::lab {

// Lets a child that we trace, and that is stopped, make so many system calls. False when it came to its end
// before; that end stays for others to wait for. Only the thread that traces the child may call this.
bool advanceBySystemCalls(pid_t child, int calls);

} // namespace pelorin::lab
