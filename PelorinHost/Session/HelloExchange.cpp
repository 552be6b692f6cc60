#include "PelorinHost/Session/HelloExchange.h"

namespace pelorin {

std::optional<SessionEnd> refusalOf(const message::Hello& hello, Permissions& permissions)
{
    if (hello.version != protocolVersion) return SessionEnd::versionMismatch(hello.version);
    if (const auto answer = permissions.mayCapture(); !answer.isGranted)
        return SessionEnd::permissionsMissing(answer.missing);
    if (const auto answer = permissions.mayPostEvents(); !answer.isGranted)
        return SessionEnd::permissionsMissing(answer.missing);
    return std::nullopt;
}

} // namespace pelorin
