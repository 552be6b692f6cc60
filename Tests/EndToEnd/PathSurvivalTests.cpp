#include "Tests/Lab/Flood.h"
#include "Tests/Lab/PathPair.h"
#include "Tests/Lab/Wait.h"

#include <gmock/gmock.h>

// A session's traffic, in both directions, while its path is taken away or drowned.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::atOnce;
using lab::NatKind;
using lab::NatLab;
using lab::PathPair;
using testing::AllOf;
using testing::Not;
using testing::StartsWith;
using Clock = PathPair::Clock;
using Role = lab::PathEnd::Role;
using enum NatKind;

constexpr lab::Wire::Quality distance{.delay = 20ms}; // 40 ms there and back to every server
constexpr auto longestInterruption = lab::slowness * 1000ms;
constexpr auto observation = 2 * longestInterruption;

std::string reportsOf(PathPair& pair)
{
    return "host:\n" + pair.log(Role::host) + "phone:\n" + pair.log(Role::phone);
}

void expectSameConnectionToTheEnd(PathPair& pair)
{
    for (const Role role : {Role::host, Role::phone})
        EXPECT_FALSE(pair.has(role, "closed")) << pair.log(role);
    EXPECT_FALSE(pair.isBroken());
    EXPECT_TRUE(pair.endInOrder()) << reportsOf(pair);
}

void loseRelay(void (NatLab::*lose)(int))
{
    NatLab lab;
    PathPair pair(lab.addMachine(symmetric), lab.addMachine(symmetric));
    lab.setQuality(distance);
    ASSERT_TRUE(pair.carriesFrames()) << reportsOf(pair);
    ASSERT_THAT(pair.label(Role::phone), StartsWith("relay 192.0.2.1"));
    // The backup stands a round trip after its channels.
    const auto channels = [&] {
        const auto log = lab.relay(1).log();
        int count = 0;
        for (std::size_t at = 0; (at = log.find("CHANNEL_BIND processed, success", at)) != log.npos; ++at)
            ++count;
        return count;
    };
    ASSERT_TRUE(lab::eventually([&] { return channels() >= 2; })) << lab.relay(1).log();
    pair.longestGapSince(Clock::now(), 300ms);

    const auto moment = Clock::now();
    (lab.*lose)(0);
    EXPECT_LE(pair.longestGapSince(moment, observation), longestInterruption) << reportsOf(pair);
    EXPECT_THAT(pair.label(Role::host), StartsWith("relay 192.0.2.2"));
    EXPECT_THAT(pair.label(Role::phone), StartsWith("relay 192.0.2.2"));
    expectSameConnectionToTheEnd(pair);
}

TEST(PathSurvival, aRelayThatDiesOrFallsSilentCostsLessThanASecond)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    atOnce({[] { loseRelay(&NatLab::killRelay); }, [] { loseRelay(&NatLab::freezeRelay); }});
}

TEST(PathSurvival, aRouterThatForgetsOrMovesCostsLessThanASecond)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    using Change = void (NatLab::Site::*)();
    constexpr Change rebinding = &NatLab::Site::forgetMappings;
    constexpr Change renumbering = &NatLab::Site::changeOuterAddress;
    const struct {
        NatKind host, phone;
        Role changed;
        Change change;
    } rows[] = {
        {portRestricted, portRestricted, Role::phone, rebinding},
        {portRestricted, portRestricted, Role::host, rebinding},
        {fullCone, symmetric, Role::phone, rebinding},
        {symmetric, portRestricted, Role::phone, rebinding},
        {portRestricted, addressRestricted, Role::phone, renumbering},
        {portRestricted, portRestricted, Role::host, renumbering},
        {oneToOne, symmetric, Role::host, renumbering},
        {symmetric, symmetric, Role::phone, renumbering},
    };
    NatLab lab;
    std::vector<std::function<void()>> works;
    for (const auto& row : rows) {
        const NatLab::Machine& host = lab.addMachine(row.host);
        const NatLab::Machine& phone = lab.addMachine(row.phone);
        works.emplace_back([row, &host, &phone] {
            PathPair pair(host, phone);
            ASSERT_TRUE(pair.carriesFrames()) << reportsOf(pair);
            pair.longestGapSince(Clock::now(), 500ms); // a backup relay is there
            const auto moment = Clock::now();
            ((row.changed == Role::host ? host : phone).site.*row.change)();
            EXPECT_LE(pair.longestGapSince(moment, observation), longestInterruption) << nameOf(
                row.host) << " and " << nameOf(row.phone) << "\n" << reportsOf(pair);
            expectSameConnectionToTheEnd(pair);
        });
    }
    lab.setQuality(distance);
    atOnce(works);
}

TEST(PathSurvival, fiveSecondsOfSilenceAreOutlived)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    NatLab lab;
    std::vector<std::function<void()>> works;
    for (const auto& [hostKind, phoneKind] :
        {std::pair(fullCone, portRestricted), std::pair(symmetric, symmetric)}) {
        NatLab::Machine& host = lab.addMachine(hostKind);
        const NatLab::Machine& phone = lab.addMachine(phoneKind);
        works.emplace_back([&host, &phone] {
            PathPair pair(host, phone);
            ASSERT_TRUE(pair.carriesFrames()) << reportsOf(pair);
            pair.longestGapSince(Clock::now(), 300ms);
            host.site.wire().cut(true);
            pair.longestGapSince(Clock::now(), 5000ms);
            const auto back = Clock::now();
            host.site.wire().cut(false);
            const auto gap = pair.longestGapSince(back, observation);
            EXPECT_GE(gap, 4900ms) << reportsOf(pair);
            EXPECT_LE(gap, 5000ms + 2 * longestInterruption) << reportsOf(pair);
            expectSameConnectionToTheEnd(pair);
        });
    }
    lab.setQuality(distance);
    atOnce(works);
}

// The slower a build is, the less it can be asked to stand.
constexpr int floodPerSecond = lab::slowness == 1 ? 200'000 : 20'000;
constexpr const char* pictureBytes
    = lab::slowness == 1 ? "25000" : "2500"; // 12 Mbit/s, as a desktop in motion

TEST(PathSurvival, aFloodFromStrangersHarmsNobody)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    NatLab lab;
    NatLab::Machine& host = lab.addMachine(none); // its port is open to everyone
    const NatLab::Machine& phone = lab.addMachine(portRestricted);
    lab.setQuality(distance);
    PathPair pair(host, phone, {.host = {"--frame-bytes", pictureBytes}});
    ASSERT_TRUE(pair.carriesFrames()) << reportsOf(pair);
    pair.longestGapSince(Clock::now(), 1000ms);
    const std::string label = pair.label(Role::phone); // direct ADDRESS:PORT of the host
    const auto port = static_cast<std::uint16_t>(std::stoi(label.substr(label.rfind(':') + 1)));
    const long memory = pair.process(Role::host).residentKiB();

    const auto moment = Clock::now();
    std::uint64_t sent = 0;
    {
        const lab::Flood flood(host.site.router(), *SocketAddress::parse(host.address, port), floodPerSecond);
        EXPECT_LE(pair.longestGapSince(moment, 2000ms), lab::slowness * 250ms) << reportsOf(pair);
        sent = flood.sent();
    }
    RecordProperty("floodPerSecond", static_cast<int>(sent / 2));
    EXPECT_GT(sent, floodPerSecond / 2) << "no flood: a quarter of it, at the least, shall have been sent";
    const auto traffic = pair.last(Role::phone, "traffic").value();
    EXPECT_LE(traffic["latencyMs"], lab::slowness * 100) << traffic;
    EXPECT_EQ(pair.label(Role::phone), label);
    // A sanitizer keeps what was freed for a while.
    EXPECT_LE(pair.process(Role::host).residentKiB(), memory + lab::slowness * 16 * 1024);
    expectSameConnectionToTheEnd(pair);
}

} // namespace
} // namespace pelorin
