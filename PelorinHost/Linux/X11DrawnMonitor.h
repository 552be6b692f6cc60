#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Platform/Displays.h"

namespace pelorin {

// A monitor drawn by us over the top left of an X server's screen, made the primary one in place of any that
// was there. The monitors that stand for these outputs are gone while it is there. False when the server does
// not take it.
bool drawMonitor(const X11Connection& connection, PointSize size, const std::vector<std::uint32_t>& outputs);
void eraseMonitor(const X11Connection& connection); // if there is one
std::uint32_t drawnMonitorID(const X11Connection& connection); // its display's, whether or not it is there

} // namespace pelorin
