#include "PelorinNet/Path/Candidate.h"

#include <algorithm>
#include <cctype>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

constexpr std::int64_t maxPort = 65'535;
constexpr std::size_t maxTypeSize = 16;

// How the systems we know name the interfaces of tunnels. Their addresses lead into somebody's private
// network, and what is sent there travels in a tunnel within ours.
constexpr std::string_view tunnelPrefixes[] = {"utun", "tun", "wg", "tailscale"};

bool isTunnel(std::string_view name)
{
    return std::ranges::any_of(
        tunnelPrefixes, [&](std::string_view prefix) { return name.starts_with(prefix); });
}

std::optional<SocketAddress> ipv4Of(const sockaddr* address, std::uint16_t port)
{
    if (!address || address->sa_family != AF_INET) return std::nullopt;
    const auto host = reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
    return SocketAddress::ipv4(std::bit_cast<std::array<std::uint8_t, 4>>(host), port);
}

bool isOffered(const SocketAddress& address)
{
    const ByteView host = address.host();
    const bool isLinkLocal = host[0] == 169 && host[1] == 254;
    const bool isCarrierGrade = host[0] == 100 && (host[1] & 0xC0) == 64;
    return !isLinkLocal && !isCarrierGrade;
}

// Types are signed and logged as they came: none may look like something else there.
bool isTypeName(std::string_view type)
{
    return !type.empty() && type.size() <= maxTypeSize
        && std::ranges::all_of(type, [](unsigned char c) { return std::isalnum(c) || c == '-'; });
}

std::optional<std::uint16_t> portIn(const nlohmann::json& value)
{
    if (!value.is_number_integer()) return std::nullopt;
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > maxPort) return maxPort;
    return std::uint16_t(std::clamp(value.get<std::int64_t>(), std::int64_t{0}, maxPort));
}

} // namespace

std::string Candidate::signedText() const
{
    return type + " " + address.text();
}

nlohmann::json Candidate::json() const
{
    return {{"ip", address.hostText()}, {"port", address.port}, {"type", type}};
}

std::optional<Candidate> Candidate::parse(const nlohmann::json& json)
{
    if (!json.is_object()) return std::nullopt;
    const auto ip = json.find("ip"), port = json.find("port"), type = json.find("type");
    if (ip == json.end() || port == json.end() || type == json.end()) return std::nullopt;
    if (!ip->is_string() || !type->is_string()) return std::nullopt;
    const auto number = portIn(*port);
    const auto& name = type->get_ref<const std::string&>();
    if (!number || !isTypeName(name)) return std::nullopt;
    const auto address = SocketAddress::parse(ip->get_ref<const std::string&>(), *number);
    if (!address) return std::nullopt;
    return Candidate{*address, name};
}

std::vector<Candidate> hostCandidates(std::uint16_t port)
{
    ifaddrs* interfaces = nullptr;
    if (::getifaddrs(&interfaces) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(interfaces, &::freeifaddrs);
    return hostCandidates(interfaces, port);
}

std::vector<Candidate> hostCandidates(const ifaddrs* interfaces, std::uint16_t port)
{
    std::vector<Candidate> candidates;
    for (const ifaddrs* each = interfaces; each; each = each->ifa_next) {
        if (!(each->ifa_flags & IFF_UP) || (each->ifa_flags & IFF_LOOPBACK) || isTunnel(each->ifa_name))
            continue;
        const auto address = ipv4Of(each->ifa_addr, port);
        if (address && isOffered(*address)) candidates.push_back({*address, "host"});
    }
    return candidates;
}

} // namespace pelorin
