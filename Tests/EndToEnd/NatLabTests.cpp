#include "PelorinNet/Stun/StunMessage.h"
#include "Tests/Lab/NatLab.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/RawUDP.h"

#include <csignal>
#include <gmock/gmock.h>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>

// The lab's own routers, wires and relays: whatever is found out with them is worth no more than they are.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::nameOf;
using lab::NatKind;
using lab::NatLab;
using testing::UnorderedElementsAreArray;

constexpr std::uint16_t port = 40'001;
constexpr std::uint16_t otherPort = 40'002;
constexpr int patienceMs = 5000;

std::unique_ptr<RawUDP> socketIn(
    const lab::NetworkNamespace& network, const std::string& host = "0.0.0.0", std::uint16_t at = 0)
{
    std::unique_ptr<RawUDP> socket;
    network.run([&] {
        std::array<std::uint8_t, 4> bytes;
        std::ranges::copy(SocketAddress::parse(host, at)->host(), bytes.begin());
        socket = std::make_unique<RawUDP>(bytes, at);
    });
    return socket;
}

void say(const RawUDP& from, const std::string& what, const SocketAddress& to)
{
    from.send({reinterpret_cast<const std::uint8_t*>(what.data()), what.size()}, to);
}

// What arrives, up to the one that says last: nothing overtakes it on its way.
std::vector<std::string> heard(const RawUDP& by, const std::string& last)
{
    std::vector<std::string> all;
    while (by.waitReadable(patienceMs)) {
        for (const auto& datagram : by.receive())
            all.emplace_back(datagram.bytes.begin(), datagram.bytes.end());
        if (!all.empty() && all.back() == last) return all;
    }
    ADD_FAILURE() << "\"" << last << "\" did not arrive";
    return all;
}

std::optional<SocketAddress> sourceOfNext(const RawUDP& at)
{
    if (!at.waitReadable(patienceMs)) return std::nullopt;
    return at.receive().back().source;
}

struct NatLabTest : testing::Test {
    void SetUp() override
    {
        PELORIN_SKIP_WITHOUT_NETWORKS();
        lab = std::make_unique<NatLab>();
        near = socketIn(lab->internet(), NatLab::strangers[0], port);
        nearOther = socketIn(lab->internet(), NatLab::strangers[0], otherPort);
        far = socketIn(lab->internet(), NatLab::strangers[1], port);
    }

    // How the near stranger sees the socket, after that has spoken to it.
    SocketAddress seenByNear(const RawUDP& socket) const
    {
        say(socket, "hello", near->address);
        return sourceOfNext(*near).value_or(SocketAddress{});
    }

    std::unique_ptr<NatLab> lab;
    std::unique_ptr<RawUDP> near; // strangers in the internet
    std::unique_ptr<RawUDP> nearOther;
    std::unique_ptr<RawUDP> far;
};

struct Behaviour {
    NatKind kind;
    bool keepsPort; // towards everyone
    std::vector<std::string> letIn; // of those that answer a datagram to the near one
};
const Behaviour behaviours[] = {
    {NatKind::none, true, {"far", "near other", "near"}},
    {NatKind::oneToOne, true, {"far", "near other", "near"}},
    {NatKind::fullCone, true, {"far", "near other", "near"}},
    {NatKind::addressRestricted, true, {"near other", "near"}},
    {NatKind::portRestricted, true, {"near"}},
    {NatKind::symmetric, false, {"near"}},
};

TEST_F(NatLabTest, routersTranslateAndFilterAsTheirKindSays)
{
    for (const auto& [kind, keepsPort, letIn] : behaviours) {
        SCOPED_TRACE(nameOf(kind));
        NatLab::Machine& machine = lab->addMachine(kind);
        const auto inside = socketIn(machine.network);
        const auto seen = seenByNear(*inside);
        EXPECT_EQ(seen.hostText(), machine.site.outerAddress());
        const bool isTranslated = kind != NatKind::none && kind != NatKind::oneToOne;
        EXPECT_EQ(seen.port != inside->address.port, isTranslated) << seen.text();

        say(*far, "far", seen);
        say(*nearOther, "near other", seen);
        say(*near, "near", seen);
        EXPECT_THAT(heard(*inside, "near"), UnorderedElementsAreArray(letIn));

        // After the router has turned datagrams of theirs away, too.
        for (const auto& stranger : {std::ref(far), std::ref(nearOther)}) {
            say(*inside, "hello", stranger.get()->address);
            const auto other = sourceOfNext(*stranger.get());
            ASSERT_TRUE(other);
            EXPECT_EQ(*other == seen, keepsPort) << other->text() << " and " << seen.text();
            say(*stranger.get(), "answer", *other);
            heard(*inside, "answer");
        }

        // And when it has spoken to strangers that came first; here to one port of the far address.
        const auto late = socketIn(lab->internet(), NatLab::strangers[1], otherPort);
        say(*late, "late", seen);
        say(*near, "near", seen);
        const bool isOpenToAddress = letIn.size() > 1;
        EXPECT_EQ(heard(*inside, "near").size(), isOpenToAddress ? 2 : 1);
    }
}

TEST_F(NatLabTest, conesGiveEverySocketAPortOfItsOwnTowardsEveryone)
{
    NatLab::Machine& machine = lab->addMachine(NatKind::portRestricted);
    constexpr int count = 150;
    std::vector<std::unique_ptr<RawUDP>> sockets;
    std::set<std::uint16_t> seen;
    for (int i = 0; i < count; ++i) {
        sockets.push_back(socketIn(machine.network));
        const RawUDP& stranger = i % 2 ? *near : *far;
        say(*sockets.back(), "hello", stranger.address);
        const auto source = sourceOfNext(stranger);
        ASSERT_TRUE(source);
        seen.insert(source->port);
    }
    EXPECT_EQ(seen.size(), count);
}

TEST_F(NatLabTest, forgottenMappingsShutTheOldPortAndOpenAnother)
{
    for (const NatKind kind :
        {NatKind::fullCone, NatKind::addressRestricted, NatKind::portRestricted, NatKind::symmetric}) {
        SCOPED_TRACE(nameOf(kind));
        NatLab::Machine& machine = lab->addMachine(kind);
        const auto inside = socketIn(machine.network);
        const auto before = seenByNear(*inside);
        machine.site.forgetMappings();
        say(*near, "late", before);
        const auto after = seenByNear(*inside);
        EXPECT_EQ(after.hostText(), before.hostText());
        EXPECT_NE(after.port, before.port);
        say(*near, "answer", after);
        EXPECT_THAT(heard(*inside, "answer"), UnorderedElementsAreArray({"answer"}));
    }
}

TEST_F(NatLabTest, anotherOuterAddressTakesThePlaceOfTheFirst)
{
    for (const NatKind kind : {NatKind::oneToOne, NatKind::fullCone, NatKind::symmetric}) {
        SCOPED_TRACE(nameOf(kind));
        NatLab::Machine& machine = lab->addMachine(kind);
        const auto inside = socketIn(machine.network);
        const auto before = seenByNear(*inside);
        machine.site.changeOuterAddress();
        say(*near, "late", before);
        const auto after = seenByNear(*inside);
        EXPECT_NE(after.hostText(), before.hostText());
        EXPECT_EQ(after.hostText(), machine.site.outerAddress());
        say(*near, "answer", after);
        EXPECT_THAT(heard(*inside, "answer"), UnorderedElementsAreArray({"answer"}));
    }
}

TEST_F(NatLabTest, whereUDPIsBlockedOnlyTheRelaysAnswer)
{
    NatLab::Machine& machine = lab->addMachine(NatKind::udpBlocked);
    const auto inside = socketIn(machine.network);
    say(*inside, "hello", near->address);
    const StunMessage request{
        StunMessage::Method::binding, StunMessage::Class::request, StunMessage::newTransactionID(), {}};
    for (int i = 0; i < NatLab::relayCount; ++i) {
        inside->send(request.serialize(), NatLab::relayAddress(i));
        EXPECT_EQ(sourceOfNext(*inside), NatLab::relayAddress(i));
    }
    EXPECT_TRUE(near->receive().empty());
}

TEST_F(NatLabTest, machinesBehindOneRouterMeetThereAndShareItsAddress)
{
    NatLab::Site& home = lab->addSite(NatKind::portRestricted);
    const auto one = socketIn(lab->addMachine(home).network, "192.168.1.2");
    const auto other = socketIn(lab->addMachine(home).network, "192.168.1.3");
    say(*one, "neighbour", other->address);
    EXPECT_EQ(sourceOfNext(*other), one->address);
    const auto outside = seenByNear(*one);
    EXPECT_EQ(outside.hostText(), home.outerAddress());
    EXPECT_EQ(seenByNear(*other).hostText(), home.outerAddress());
}

TEST_F(NatLabTest, wiresDelayLoseAndLimitWhatTheyCarry)
{
    NatLab::Machine& machine = lab->addMachine(NatKind::none);
    lab::Wire& wire = machine.site.wire();
    const auto inside = socketIn(machine.network);
    const auto roundTrip = [&] {
        const auto start = std::chrono::steady_clock::now();
        say(*near, "back", seenByNear(*inside));
        heard(*inside, "back");
        return std::chrono::steady_clock::now() - start;
    };
    const auto lost = [&](int count, std::size_t size) {
        const auto before = wire.counts();
        for (int i = 0; i < count; ++i) say(*inside, std::string(size, 'x'), near->address);
        const auto isAllTaken = [&] { return wire.counts().taken - before.taken >= std::uint64_t(count); };
        EXPECT_TRUE(lab::eventually(isAllTaken));
        return wire.counts().lost - before.lost;
    };
    EXPECT_LT(roundTrip(), lab::slowness * 50ms);
    wire.set({.delay = 30ms});
    EXPECT_GE(roundTrip(), 60ms);

    wire.set({.loss = 0.2});
    const auto unlucky = lost(500, 100);
    EXPECT_GT(unlucky, 50);
    EXPECT_LT(unlucky, 150);

    // 1 Mbit/s, of which 25,000 bytes take 200 ms; what would wait for longer is lost.
    wire.set({.bitsPerSecond = 1e6});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_GT(lost(30, 1222), 5);
    wire.set({});
    say(*inside, "last", near->address);
    heard(*near, "last");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);

    wire.cut(true);
    EXPECT_EQ(lost(10, 100), 10);
    wire.cut(false);
    EXPECT_EQ(lost(10, 100), 0);
}

TEST_F(NatLabTest, relaysDieAndComeBackOneByOne)
{
    NatLab::Machine& machine = lab->addMachine(NatKind::portRestricted);
    const auto inside = socketIn(machine.network);
    const auto answers = [&](int relay) {
        const StunMessage request{
            StunMessage::Method::binding, StunMessage::Class::request, StunMessage::newTransactionID(), {}};
        inside->send(request.serialize(), NatLab::relayAddress(relay));
        return inside->waitReadable(300) && !inside->receive().empty();
    };
    EXPECT_TRUE(answers(0));
    lab->killRelay(0);
    EXPECT_FALSE(answers(0));
    EXPECT_TRUE(answers(1));
    lab->startRelay(0);
    EXPECT_TRUE(answers(0));
    lab->freezeRelay(1);
    EXPECT_FALSE(answers(1));
}

TEST(NatLab, leavesNothingBehindWhenItsProgramIsKilled)
{
    PELORIN_SKIP_WITHOUT_NETWORKS();
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // we get to know when its children end
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const int child = fork();
    if (child == 0) {
        NatLab doomed;
        NatLab::Machine& machine = doomed.addMachine(NatKind::symmetric);
        const auto busy = lab::Process::start(machine.inside({"sleep", "1000"}));
        const int pids[] = {doomed.relay(0).process().pid(), busy->pid()};
        if (write(report[1], pids, sizeof pids) == sizeof pids) pause();
        _exit(1);
    }
    int pids[2]{};
    ASSERT_EQ(read(report[0], pids, sizeof pids), sizeof pids);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (const int pid : pids)
        EXPECT_TRUE(lab::eventually([&] { return waitpid(pid, nullptr, WNOHANG) == pid; })) << pid;
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    for (const int fd : report) close(fd);
}

} // namespace
} // namespace pelorin
