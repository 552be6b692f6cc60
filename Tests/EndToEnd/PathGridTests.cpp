#include "Tests/Lab/PathPair.h"

#include <gmock/gmock.h>

// Two programs find a path between two networks, whatever routers stand between them.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::nameOf;
using lab::NatKind;
using lab::NatLab;
using lab::PathPair;
using testing::StartsWith;
using Role = lab::PathEnd::Role;

constexpr lab::Wire::Quality distance{.delay = 20ms}; // 40 ms there and back to every server

void expectPath(PathPair& pair, const char* label)
{
    for (const Role role : {Role::host, Role::phone}) {
        const auto ready = pair.wait(role, "ready");
        ASSERT_TRUE(ready) << pair.log(role);
        EXPECT_THAT(pair.label(role), StartsWith(label)) << pair.log(role);
    }
    EXPECT_TRUE(pair.carriesFrames()) << pair.log(Role::host) << pair.log(Role::phone);
    EXPECT_FALSE(pair.isBroken());
    EXPECT_TRUE(pair.endInOrder()) << pair.log(Role::host) << pair.log(Role::phone);
}

TEST(PathGrid, isDirectWhereverTheRoutersAllowItAndRelayedElsewhere)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    NatLab lab;
    std::vector<NatLab::Machine*> hosts;
    std::vector<NatLab::Machine*> phones;
    for (const NatKind kind : lab::allNatKinds) {
        hosts.push_back(&lab.addMachine(kind));
        phones.push_back(&lab.addMachine(kind));
    }
    lab.setQuality(distance);
    for (const NatLab::Machine* host : hosts) {
        std::vector<std::unique_ptr<PathPair>> pairs;
        for (const NatLab::Machine* phone : phones)
            pairs.push_back(std::make_unique<PathPair>(*host, *phone));
        for (std::size_t i = 0; i < phones.size(); ++i) {
            const NatKind one = host->site.kind();
            const NatKind other = phones[i]->site.kind();
            SCOPED_TRACE(std::string(nameOf(one)) + " and " + nameOf(other));
            expectPath(*pairs[i], allowDirectPath(one, other) ? "direct " : "relay ");
        }
    }
}

TEST(PathGrid, staysInsideTheHomeThatBothEndsAreIn)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    NatLab lab;
    for (const NatKind kind : {NatKind::portRestricted, NatKind::symmetric, NatKind::udpBlocked}) {
        SCOPED_TRACE(nameOf(kind));
        NatLab::Site& home = lab.addSite(kind);
        const NatLab::Machine& host = lab.addMachine(home);
        const NatLab::Machine& phone = lab.addMachine(home);
        lab.setQuality(distance);
        PathPair pair(host, phone);
        expectPath(pair, "direct 192.168.1.");
    }
}

} // namespace
} // namespace pelorin
