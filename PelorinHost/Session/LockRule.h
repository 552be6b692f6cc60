#pragma once

#include "PelorinHost/Session/SessionEnd.h"

namespace pelorin {

enum class LockRule { never, atOnce, afterGrace };

// Whether the desktop is to be locked after a session that had said hello and ended this way.
LockRule lockRuleFor(EndKind kind, SessionOptions options);

} // namespace pelorin
