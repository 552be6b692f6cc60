#pragma once

#include "PelorinViewer/ViewerOptions.h"

namespace pelorin {

// Runs the viewer to its end and returns the program's exit code (see ViewerExit). The calling thread becomes
// the window's. SIGINT and SIGTERM end the run in order, as closing the window does; they stay blocked in the
// process.
int runViewer(const ViewerOptions& options);

} // namespace pelorin
