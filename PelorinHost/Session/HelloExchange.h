#pragma once

#include "PelorinHost/Platform/Permissions.h"
#include "PelorinHost/Session/SessionEnd.h"

namespace pelorin {

// Why a hello is refused; nothing when the session may begin.
std::optional<SessionEnd> refusalOf(const message::Hello& hello, Permissions& permissions);

} // namespace pelorin
