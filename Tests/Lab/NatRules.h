#pragma once

#include <array>
#include <string>
#include <utility>

namespace pelorin::lab {

// How a router treats UDP that crosses it.
enum class NatKind {
    none, // nothing is translated or held back
    oneToOne, // an outer address of the machine's own, all ports alike, nothing is held back
    fullCone, // the same outer port towards everyone; whoever knows it gets in
    addressRestricted, // the same; only whose address was sent to gets in
    portRestricted, // the same; only whose address and port were sent to gets in
    symmetric, // another outer port towards everyone who is sent to, and only that one gets in
    udpBlocked, // UDP only to the relays' port; as portRestricted with them
};
inline constexpr std::array allNatKinds{NatKind::none, NatKind::oneToOne, NatKind::fullCone,
    NatKind::addressRestricted, NatKind::portRestricted, NatKind::symmetric, NatKind::udpBlocked};

const char* nameOf(NatKind kind); // "full cone"

// Whether two machines behind NATs of these kinds can reach each other without a relay.
bool allowDirectPath(NatKind one, NatKind other);

// The rules of a router in the language of nft, in place of all that it had. Its outer device is "wan".
struct NatRules {
    NatKind kind = NatKind::none;
    std::string outerAddress;
    // Outer ports, first and last. They differ from those that sockets have, so that nobody gets through by
    // mistaking one for the other.
    std::pair<int, int> ports{20'000, 24'999};

    // Of the machines inside, as the rules know them; their sockets choose from ports of their own each.
    static std::string addressOf(int machine);
    static constexpr int machines = 2;
    static constexpr int firstInnerPort = 40'000;
    static constexpr int portsOfMachine = 400;

    std::string text() const;
};

} // namespace pelorin::lab
