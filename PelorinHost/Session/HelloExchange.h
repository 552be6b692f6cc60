#pragma once

#include "PelorinHost/Platform/Permissions.h"
#include "PelorinHost/Session/SessionEnd.h"

namespace pelorin {

// Why a hello is refused; nothing when the session may begin.
std::optional<SessionEnd> refusalOf(const message::Hello& hello, Permissions& permissions);

// A text of the phone's as it may stand in a log or a menu: one line, of bounded length.
std::string asLabel(std::string_view text);

} // namespace pelorin
