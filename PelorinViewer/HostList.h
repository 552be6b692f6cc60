#pragma once

#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinPhone/Pairing/PairedHosts.h"

#include <memory>

namespace pelorin {

// This user's.
PairedHosts ownPairedHosts();
// The key by which hosts know this device when it comes through a rendezvous service; made at its first use.
Result<std::shared_ptr<const DeviceIdentity>, std::string> ownIdentity();

// Print and return the program's exit code (see ViewerExit).
int listHosts(const PairedHosts& hosts, bool printsJSON);
int forgetHost(const PairedHosts& hosts, const std::string& name, bool printsJSON);

} // namespace pelorin
