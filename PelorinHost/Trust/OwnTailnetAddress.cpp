#include "PelorinHost/Trust/OwnTailnetAddress.h"

#include "PelorinCore/Access/Tailnet.h"

#include <algorithm>
#include <vector>

namespace pelorin {

std::optional<std::string> ownTailnetAddress(std::span<const InterfaceAddress> addresses)
{
    std::vector<std::pair<std::string, IPAddress>> ipv4, ipv6; // interface and address
    for (const auto& [interface, text] : addresses) {
        const auto address = IPAddress::parse(text);
        if (address && Tailnet::contains(*address))
            (address->isIPv4() ? ipv4 : ipv6).emplace_back(interface, *address);
    }
    const auto hasBoth = std::ranges::find_if(ipv4, [&](const auto& candidate) {
        return std::ranges::any_of(ipv6, [&](const auto& other) { return other.first == candidate.first; });
    });
    if (hasBoth != ipv4.end()) return hasBoth->second.text();
    if (!ipv4.empty()) return ipv4.front().second.text();
    if (!ipv6.empty()) return ipv6.front().second.text();
    return std::nullopt;
}

} // namespace pelorin
