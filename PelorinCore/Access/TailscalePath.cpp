#include "PelorinCore/Access/TailscalePath.h"

namespace pelorin {
namespace {

constexpr const char* places[] = {
    "/Applications/Tailscale.app/Contents/MacOS/Tailscale", // the app itself, told so by TAILSCALE_BE_CLI
    "/opt/homebrew/bin/tailscale",
    "/usr/local/bin/tailscale",
    "/usr/bin/tailscale", // distributions' packages; macOS lets nobody put one here
    "/usr/sbin/tailscale",
};

} // namespace

std::optional<std::string> TailscalePath::find(
    const std::function<bool(const std::string&)>& isExecutableFile)
{
    for (const char* place : places)
        if (isExecutableFile(place)) return place;
    return std::nullopt;
}

} // namespace pelorin
