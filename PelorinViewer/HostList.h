#pragma once

#include "PelorinPhone/Pairing/PairedHosts.h"

namespace pelorin {

PairedHosts ownPairedHosts(); // this user's

// Print and return the program's exit code (see ViewerExit).
int listHosts(const PairedHosts& hosts, bool printsJSON);
int forgetHost(const PairedHosts& hosts, const std::string& name, bool printsJSON);

} // namespace pelorin
