#include "PelorinHost/Session/LockRule.h"

namespace pelorin {

LockRule lockRuleFor(EndKind kind, SessionOptions options)
{
    if (!options.contains(sessionOption::lockAtEnd)) return LockRule::never;
    switch (kind) {
    case EndKind::userEnded:
    case EndKind::idle:
    case EndKind::failed:
        return LockRule::atOnce;
    case EndKind::dropped: // a phone between two networks comes back within seconds
        return LockRule::afterGrace;
    case EndKind::replaced:
    case EndKind::endedOnMac:
    case EndKind::paired:
        return LockRule::never;
    }
    return LockRule::never;
}

} // namespace pelorin
