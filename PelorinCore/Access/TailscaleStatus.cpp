#include "PelorinCore/Access/TailscaleStatus.h"

#include "PelorinCore/Access/TailscaleJSON.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;

std::vector<IPAddress> addressesOf(const json& peer)
{
    std::vector<IPAddress> addresses;
    const auto list = peer.find("TailscaleIPs");
    if (list == peer.end() || !list->is_array()) return addresses; // null for a peer that has none yet
    for (const auto& entry : *list)
        if (entry.is_string())
            if (const auto address = IPAddress::parse(entry.get_ref<const std::string&>()))
                addresses.push_back(*address);
    return addresses;
}

} // namespace

Result<TailscaleStatus, TailscaleJSONError> TailscaleStatus::parse(std::string_view text)
{
    TailscaleJSON reader;
    const json root = reader.parse(text, maxSize);
    TailscaleStatus status;
    status.dnsName = reader.optionalString(reader.optionalObject(root, "Self"), "DNSName")
                         .transform(TailscaleJSON::withoutTrailingDot);
    for (const auto& peer : reader.optionalObject(root, "Peer"))
        if (peer.is_object())
            status.peers.push_back({addressesOf(peer), reader.optionalString(peer, "CurAddr")});
    if (reader.problem()) return std::unexpected(*reader.problem());
    return status;
}

std::optional<std::string> TailscaleStatus::curAddrOf(const IPAddress& tailnetAddress) const
{
    const auto found = std::ranges::find_if(
        peers, [&](const Peer& peer) { return std::ranges::count(peer.tailscaleIPs, tailnetAddress) > 0; });
    return found == peers.end() ? std::nullopt : found->curAddr;
}

} // namespace pelorin
