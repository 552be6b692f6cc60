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
    // Each machine has one session at a time.
    for (std::size_t shift = 0; shift < phones.size(); ++shift) {
        std::vector<std::unique_ptr<PathPair>> pairs;
        const auto phoneOf = [&](std::size_t host) { return phones[(host + shift) % phones.size()]; };
        for (std::size_t i = 0; i < hosts.size(); ++i)
            pairs.push_back(std::make_unique<PathPair>(*hosts[i], *phoneOf(i)));
        for (std::size_t i = 0; i < hosts.size(); ++i) {
            const NatKind host = hosts[i]->site.kind();
            const NatKind phone = phoneOf(i)->site.kind();
            SCOPED_TRACE(std::string(nameOf(host)) + " and " + nameOf(phone));
            expectPath(*pairs[i], allowDirectPath(host, phone) ? "direct " : "relay ");
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
