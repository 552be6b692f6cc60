#include "Tests/Lab/NatRules.h"

#include <algorithm>
#include <fmt/format.h>

namespace pelorin::lab {
namespace {

// What comes unasked and is for nobody behind the router ends here. Did the router's own machine answer, the
// connection tracker would keep an entry for it, and the same port could not be given to who then sends
// there.
constexpr const char* refuseUnasked = R"(
    chain input { type filter hook input priority 0; iifname "wan" drop; }
    chain forward { type filter hook forward priority 0;
        ct status dnat accept
        iifname "wan" ct state new drop
    })";

// An outer address given up is nobody's until the provider gives it to somebody else.
constexpr const char* neverBack = R"(
    chain back { type filter hook forward priority -10; iifname "wan" oifname "wan" drop; })";

// Every socket inside has one outer port, the same towards everyone. The tracker could choose them by itself,
// but takes one that another socket has as soon as the two talk to different addresses.
constexpr const char* translate = R"(
    chain outward {{ type nat hook postrouting priority 100;
        oifname "wan" ip protocol udp snat ip to udp sport map {{ {} }}
        oifname "wan" ip protocol tcp snat to {}
    }})";

constexpr const char* translateAnew = R"(
    chain outward {{ type nat hook postrouting priority 100;
        oifname "wan" ip protocol udp snat to {0}:{1}-{2} fully-random
        oifname "wan" ip protocol tcp snat to {0}
    }})";

// Which outer ports are in use, and whom they have sent to.
constexpr const char* learn = R"(
    set used { type inet_service; flags dynamic, timeout; timeout 1m; }
    set addressed { type inet_service . ipv4_addr; flags dynamic, timeout; timeout 1m; }
    chain learn { type filter hook postrouting priority 150;
        oifname "wan" update @used { udp sport }
        oifname "wan" update @addressed { udp sport . ip daddr }
    })";

// Who may send to a port that stands for a socket. An address given up leads to none, though the port may be
// in use again.
constexpr const char* letIn = R"(
    chain inward {{ type nat hook prerouting priority -100;
        iifname "wan" ip daddr {} {} dnat ip to udp dport map {{ {} }}
    }})";

constexpr const char* oneToOne = R"(
    chain outward {{ type nat hook postrouting priority 100; oifname "wan" snat to {0}; }}
    chain inward {{ type nat hook prerouting priority -100; iifname "wan" ip daddr {0} dnat to {1}; }})";

constexpr const char* onlyRelays = R"(
    chain block { type filter hook forward priority -10; oifname "wan" udp dport != 3478 drop; })";

} // namespace

const char* nameOf(NatKind kind)
{
    switch (kind) {
    case NatKind::none:
        return "none";
    case NatKind::oneToOne:
        return "one-to-one";
    case NatKind::fullCone:
        return "full cone";
    case NatKind::addressRestricted:
        return "address-restricted";
    case NatKind::portRestricted:
        return "port-restricted";
    case NatKind::symmetric:
        return "symmetric";
    case NatKind::udpBlocked:
        return "UDP blocked";
    }
    return "";
}

bool allowDirectPath(NatKind one, NatKind other)
{
    using enum NatKind;
    if (one == udpBlocked || other == udpBlocked) return false;
    const auto isStrict = [](NatKind kind) { return kind == portRestricted || kind == symmetric; };
    const bool isAnySymmetric = one == symmetric || other == symmetric;
    return !(isAnySymmetric && isStrict(one) && isStrict(other));
}

std::string NatRules::addressOf(int machine)
{
    return fmt::format("192.168.1.{}", machine + 2);
}

std::string NatRules::text() const
{
    std::string outerOf;
    std::string innerOf;
    for (int i = 0; i < machines * portsOfMachine; ++i) {
        const int inner = firstInnerPort + i;
        const int outer = ports.first + i;
        outerOf += fmt::format("{} : {} . {}, ", inner, outerAddress, outer);
        innerOf += fmt::format("{} : {} . {}, ", outer, addressOf(i / portsOfMachine), inner);
    }
    const auto outward = fmt::format(fmt::runtime(translate), outerOf, outerAddress);
    const auto inward = [&](const char* condition) {
        return learn + fmt::format(fmt::runtime(letIn), outerAddress, condition, innerOf);
    };
    const auto rules = [&]() -> std::string {
        switch (kind) {
        case NatKind::none:
            return "";
        case NatKind::oneToOne:
            return fmt::format(fmt::runtime(oneToOne), outerAddress, addressOf(0));
        case NatKind::fullCone:
            return refuseUnasked + outward + inward("udp dport @used");
        case NatKind::addressRestricted:
            return refuseUnasked + outward + inward("udp dport . ip saddr @addressed");
        case NatKind::portRestricted:
            return refuseUnasked + outward;
        case NatKind::symmetric:
            return refuseUnasked
                + fmt::format(fmt::runtime(translateAnew), outerAddress, ports.first, ports.second);
        case NatKind::udpBlocked:
            return refuseUnasked + outward + onlyRelays;
        }
        return "";
    };
    return std::string("flush ruleset\ntable ip nat {") + neverBack + rules() + "\n}\n";
}

} // namespace pelorin::lab
