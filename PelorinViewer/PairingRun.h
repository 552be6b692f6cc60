#pragma once

#include "PelorinCore/Pairing/RemotePairingLink.h"
#include "PelorinPhone/Pairing/PairedHosts.h"
#include "PelorinViewer/EndSignals.h"
#include "PelorinViewer/Viewer.h"

namespace pelorin {

// Redeems one of the ways that a link offers and adds the host to hosts: the tailnet's when its address
// answers within 300 ms, else the rendezvous service's. Never both, since the host takes the first alone.
// Blocks until that is done, has failed, or a signal ends it; the error is then the program's result.
Result<PairedHost, ViewerResult> pairWith(
    const PairingOffer& offer, const PairedHosts& hosts, const EndSignals& signals);

// A host that was just paired one way, with the other way too if it is known from a pairing before.
PairedHost withKnownWays(PairedHost paired, const PairingOffer& offer, const std::vector<PairedHost>& known);

} // namespace pelorin
