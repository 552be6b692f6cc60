#pragma once

#include "PelorinPhone/Pairing/PairedHosts.h"
#include "PelorinViewer/EndSignals.h"
#include "PelorinViewer/Viewer.h"

namespace pelorin {

// Redeems link and adds the host to hosts. Blocks until that is done, has failed, or a signal ends it; the
// error is then the program's result.
Result<PairedHost, ViewerResult> pairWith(
    const PairingLink& link, const PairedHosts& hosts, const EndSignals& signals);

} // namespace pelorin
