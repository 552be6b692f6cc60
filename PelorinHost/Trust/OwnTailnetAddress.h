#pragma once

#include "PelorinHost/Platform/System.h"

#include <optional>
#include <span>

namespace pelorin {

// This machine's address in the tailnet, IPv4 before IPv6. Tailscale shares its IPv4 range with carriers: an
// interface that has a tailnet's IPv6 address too, as Tailscale's own has, comes before one that has not.
std::optional<std::string> ownTailnetAddress(std::span<const InterfaceAddress> addresses);

} // namespace pelorin
