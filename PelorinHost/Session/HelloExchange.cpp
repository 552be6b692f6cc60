#include "PelorinHost/Session/HelloExchange.h"

namespace pelorin {

std::optional<SessionEnd> refusalOf(const message::Hello& hello, Permissions& permissions)
{
    if (hello.version != protocolVersion) return SessionEnd::versionMismatch(hello.version);
    const auto [capture, events] = permissions.ask();
    if (!capture.isGranted) return SessionEnd::permissionsMissing(capture.missing);
    if (!events.isGranted) return SessionEnd::permissionsMissing(events.missing);
    return std::nullopt;
}

} // namespace pelorin
