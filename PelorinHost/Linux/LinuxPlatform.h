#pragma once

#include "PelorinHost/Platform/HostPlatform.h"

namespace pelorin {

// The one place that knows the Linux backends. display: the X display ("" takes $DISPLAY); a server that is
// not there now may be there later, so this never fails.
std::unique_ptr<HostPlatform> makeLinuxPlatform(const std::string& display);

// For programs that only ask a running host.
std::unique_ptr<System> makeLinuxSystem();

} // namespace pelorin
