#include "PelorinCore/Access/Tailnet.h"

namespace pelorin {
namespace {

constexpr int ipv4PrefixBits = 10;
constexpr int ipv6PrefixBits = 48;

} // namespace

bool Tailnet::contains(const IPAddress& address)
{
    static const IPAddress ipv4Range = *IPAddress::parse("100.64.0.0");
    static const IPAddress ipv6Range = *IPAddress::parse("fd7a:115c:a1e0::");
    return address.isWithin(ipv4Range, ipv4PrefixBits) || address.isWithin(ipv6Range, ipv6PrefixBits);
}

bool Tailnet::isTailnetAddress(std::string_view address)
{
    const auto parsed = IPAddress::parse(address);
    return parsed && contains(*parsed);
}

} // namespace pelorin
