#include "PelorinNet/Path/PathLinks.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/RawUDP.h"

#include <algorithm>
#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Kind = PathLink::Kind;
using Path = DatagramProxy::Path;
using testing::Contains;
using testing::ElementsAre;

SocketAddress loopback(std::uint16_t port)
{
    return SocketAddress::ipv4({127, 0, 0, 1}, port);
}

// A network between two ends: what goes in on one side comes out on the other, until it is cut.
class Cable {
public:
    explicit Cable(ManualQueues& queues) : queue(queues.makeQueue("cable"))
    {
        for (const int side : {0, 1}) {
            sockets[side] = std::move(*UDPSocket::open("127.0.0.1", 0, queue));
            sockets[side]->onReceive = [this, side](ByteView datagram, const SocketAddress&) {
                ++carried;
                if (!isCut && !isCutFrom[side]) sockets[1 - side]->send(datagram, ends[1 - side]);
            };
        }
    }
    // How the end on that side reaches the other.
    Path way(int side) const { return Path::direct(sockets[side]->localAddress()); }
    void end() // closed for good, as a machine that says so
    {
        for (auto& socket : sockets) socket->close();
    }

    SocketAddress ends[2];
    bool isCut = false;
    bool isCutFrom[2] = {false, false}; // of what comes from that side
    int carried = 0;

private:
    const QueueRef queue;
    std::unique_ptr<UDPSocket> sockets[2];
};

// One end, with a QUIC endpoint, and the story of its choices.
struct End {
    End(ManualQueues& queues, PathCredentials newLocal, PathCredentials newRemote)
        : local(std::move(newLocal)),
          remote(std::move(newRemote)),
          queue(queues.makeQueue("dev.pelorin.path"))
    {
        proxy->quicEndpoint = quic.address;
        proxy->onOtherDatagram = [this](ByteView datagram, const SocketAddress& source) {
            if (links.handleAnswer(datagram, Path::direct(source))) return;
            const auto answer = ConnectivityCheck::answer(datagram, source, local, remote);
            if (!answer) return;
            proxy->network().send(*answer, source);
            links.peerChecked(Path::direct(source));
        };
        proxy->onUnreachable = [this](const SocketAddress& peer) { links.unreachable(peer); };
        proxy->onArrivalPathChange = [this](const Path& over) { links.arrivalPathChanged(over); };
        links.onChosen = [this](const PathLink& link) { story.push_back(link.label()); };
        links.onFell = [this](const PathLink& link) { story.push_back(link.label() + " fell"); };
    }
    void speak() const { quic.send(Bytes(100, 0x40), loopback(proxy->local().localAddress().port)); }

    const PathCredentials local;
    const PathCredentials remote;
    const QueueRef queue;
    RawUDP quic;
    std::vector<std::string> story;
    std::unique_ptr<DatagramProxy> proxy = std::move(*DatagramProxy::open(queue));
    PathLinks links{*proxy, queue, local};
};

class PathLinksTest : public testing::Test {
protected:
    PathLinksTest()
    {
        for (Cable* cable : {&street, &relay, &otherRelay})
            for (const int side : {0, 1})
                cable->ends[side] = loopback(ends[side].proxy->network().localAddress().port);
    }

    void start()
    {
        for (End& end : ends) end.links.start(end.remote, queues.now() + 400ms);
    }
    void join(const Cable& cable, Kind kind, const std::string& label)
    {
        for (const int side : {0, 1})
            ends[side].links.add(cable.way(side), cable.way(side).address, kind, label);
        queues.runReady();
    }
    // Both ends speak all the time; how long each was without a word of the other at the most.
    Duration longestSilence(Duration during)
    {
        Duration longest{};
        SteadyTime heard[2] = {queues.now(), queues.now()};
        for (const SteadyTime until = queues.now() + during; queues.now() < until;) {
            for (End& end : ends) end.speak();
            queues.advance(10ms);
            for (const int side : {0, 1}) {
                if (!ends[side].quic.receive().empty()) heard[side] = queues.now();
                longest = std::max(longest, queues.now() - heard[side]);
            }
        }
        return longest;
    }
    std::vector<std::string> takeStory(int side) { return std::exchange(ends[side].story, {}); }

    ManualQueues queues;
    const PathCredentials credentials[2] = {PathCredentials::random(), PathCredentials::random()};
    End ends[2] = {{queues, credentials[0], credentials[1]}, {queues, credentials[1], credentials[0]}};
    Cable street{queues};
    Cable relay{queues};
    Cable otherRelay{queues};
};

TEST_F(PathLinksTest, takesADirectWayAtOnceAndARelayedOneOnlyAfterAWhile)
{
    start();
    join(relay, Kind::twoRelays, "relay");
    queues.advance(350ms);
    EXPECT_FALSE(ends[0].links.chosen());
    EXPECT_TRUE(ends[0].links.hasStanding(Kind::twoRelays));
    queues.advance(100ms);
    EXPECT_THAT(takeStory(0), ElementsAre("relay"));
    join(street, Kind::direct, "direct");
    for (const int side : {0, 1}) EXPECT_EQ(ends[side].links.chosen()->label(), "direct");
    EXPECT_LE(longestSilence(1s), 20ms);
}

TEST_F(PathLinksTest, mayGoInEachOfItsCallbacks)
{
    for (const std::string_view row : {"chosen", "silent", "fallen"}) {
        SCOPED_TRACE(row);
        End& end = ends[0];
        auto links = std::make_unique<PathLinks>(*end.proxy, end.queue, end.local);
        const auto goAt = [&](std::string_view moment) {
            if (moment == row) links.reset();
        };
        links->onChosen = [&](const PathLink&) { goAt("chosen"); };
        links->onSilence = [&] { goAt("silent"); };
        links->onFell = [&](const PathLink&) { goAt("fallen"); };
        end.proxy->onOtherDatagram = [&](ByteView datagram, const SocketAddress& source) {
            if (links) links->handleAnswer(datagram, Path::direct(source));
        };
        street.isCut = false;
        links->start(end.remote, queues.now());
        links->add(street.way(0), street.way(0).address, Kind::direct, "direct");
        queues.advance(1s);
        EXPECT_EQ(links == nullptr, row == "chosen");
        street.isCut = true;
        for (int i = 0; i < 2000 && links; ++i) {
            end.speak();
            queues.advance(10ms);
        }
        EXPECT_FALSE(links);
        end.proxy->path.reset();
    }
}

TEST_F(PathLinksTest, goesAlongWithAPeerThatHasChosenARelayedOne)
{
    ends[0].links.start(ends[0].remote, queues.now() + 400ms);
    ends[1].links.start(ends[1].remote, queues.now());
    join(relay, Kind::twoRelays, "relay");
    queues.advance(20ms);
    EXPECT_THAT(takeStory(1), ElementsAre("relay"));
    EXPECT_FALSE(ends[0].links.chosen());
    EXPECT_LE(longestSilence(100ms), 20ms); // what it says is answered at once
    EXPECT_THAT(takeStory(0), ElementsAre("relay"));
}

TEST_F(PathLinksTest, leavesAPathThatDiesUnderTrafficWithinASecond)
{
    const struct {
        const char* name;
        std::function<void()> breaks;
    } cases[] = {
        {"both ways", [this] { street.isCut = true; }},
        {"one way", [this] { street.isCutFrom[0] = true; }},
        {"the network says so", [this] { street.end(); }},
    };
    start();
    join(street, Kind::direct, "direct");
    join(relay, Kind::twoRelays, "relay");
    join(otherRelay, Kind::twoRelays, "other relay");
    for (const auto& [name, breaks] : cases) {
        SCOPED_TRACE(name);
        EXPECT_LE(longestSilence(5s), 20ms);
        EXPECT_EQ(ends[0].links.chosen()->label(), "direct");
        for (const int side : {0, 1}) takeStory(side);
        breaks();
        EXPECT_LE(longestSilence(3s), 1s);
        for (const int side : {0, 1}) {
            EXPECT_EQ(ends[side].links.chosen()->kind(), Kind::twoRelays);
            EXPECT_THAT(takeStory(side), Contains("direct fell"));
        }
        street.isCut = street.isCutFrom[0] = false;
    }
}

TEST_F(PathLinksTest, findsAtOnceTheOneThatLivesAmongManyThatDieTogether)
{
    start();
    join(relay, Kind::oneRelay, "relay"); // better than the other one
    join(otherRelay, Kind::twoRelays, "other relay");
    join(street, Kind::direct, "direct");
    longestSilence(1s);
    int silences = 0;
    ends[0].links.onSilence = [&] { ++silences; };
    for (const int side : {0, 1}) takeStory(side);
    street.isCut = relay.isCut = true;
    EXPECT_LE(longestSilence(3s), 700ms);
    EXPECT_THAT(takeStory(0), testing::UnorderedElementsAre("direct fell", "relay fell", "other relay"));
    EXPECT_EQ(silences, 1);
}

TEST(PathLink, fallsWhenNothingComesBackHoweverLongAnswersTook)
{
    for (const std::optional<Duration> rtt : {std::optional<Duration>(), std::optional<Duration>(20ms),
             std::optional<Duration>(700ms), std::optional<Duration>(20s)}) {
        SteadyTime now{};
        PathLink link({}, {}, Kind::direct, "direct", now);
        const auto check = [&] {
            const auto id = StunMessage::newTransactionID();
            link.checkSent(id, now);
            return id;
        };
        link.proved(now);
        if (rtt) {
            const auto id = check();
            link.answered(id, now += *rtt);
        }
        link.suspect(now);
        bool hasFallen = false;
        for (int tick = 0; tick < 80 && !hasFallen; ++tick, now += 50ms) {
            hasFallen = link.expireChecks(now);
            if (link.isCheckDue(now, true)) check();
        }
        EXPECT_TRUE(hasFallen);
        EXPECT_FALSE(link.isStanding());
    }
}

TEST_F(PathLinksTest, tellsThatItsOnlyPathIsBack)
{
    start();
    join(street, Kind::direct, "direct");
    longestSilence(1s);
    for (const int side : {0, 1}) takeStory(side);
    street.isCut = true;
    longestSilence(5s);
    EXPECT_THAT(takeStory(0), ElementsAre("direct fell"));
    street.isCut = false;
    longestSilence(300ms);
    for (const int side : {0, 1}) EXPECT_THAT(ends[side].story, Contains("direct"));
}

TEST_F(PathLinksTest, findsItsPeerHoweverOftenThatHasMoved)
{
    start();
    join(street, Kind::direct, "home");
    longestSilence(1s);
    street.isCut = true;
    for (std::uint8_t i = 0; i < 100; ++i)
        for (End& end : ends) {
            const auto elsewhere = SocketAddress::ipv4({127, 0, 1, i}, 9);
            end.links.add(Path::direct(elsewhere), elsewhere, Kind::direct, "elsewhere");
            end.proxy->validatedPeers.insert(elsewhere);
        }
    longestSilence(3s);
    join(relay, Kind::direct, "the hundredth");
    longestSilence(1s);
    for (const End& end : ends) {
        EXPECT_THAT(end.story, ElementsAre("home", "home fell", "the hundredth"));
        EXPECT_LE(end.proxy->validatedPeers.size(), 33u) << "of whom it has forgotten it takes nothing";
    }
}

TEST_F(PathLinksTest, noticesWithinSecondsThatAnIdlePathIsDead)
{
    start();
    join(street, Kind::direct, "direct");
    join(relay, Kind::oneRelay, "relay");
    queues.advance(60s);
    street.isCut = true;
    queues.advance(3s);
    for (const int side : {0, 1}) EXPECT_THAT(takeStory(side), ElementsAre("direct", "relay", "direct fell"));
}

TEST_F(PathLinksTest, holdsItsPathThroughAHoleInEveryNetwork)
{
    start();
    join(street, Kind::direct, "direct");
    join(relay, Kind::oneRelay, "relay");
    longestSilence(1s);
    street.isCut = relay.isCut = true;
    EXPECT_GE(longestSilence(5s), 4900ms);
    street.isCut = relay.isCut = false;
    longestSilence(600ms);
    EXPECT_LE(longestSilence(1s), 20ms);
    longestSilence(2s);
    for (End& end : ends) EXPECT_EQ(end.links.chosen()->label(), "direct");
}

TEST_F(PathLinksTest, doesNotFollowAPathThatComesAndGoes)
{
    start();
    join(relay, Kind::oneRelay, "relay");
    join(street, Kind::direct, "direct");
    street.isCut = true;
    longestSilence(3s);
    for (const int side : {0, 1}) takeStory(side);
    for (int round = 0; round < 20; ++round) {
        street.isCut = round % 5 != 0; // open for a hundredth of a second now and then
        longestSilence(30ms);
    }
    EXPECT_THAT(takeStory(0), ElementsAre());
    street.isCut = false;
    longestSilence(1s);
    EXPECT_THAT(takeStory(0), ElementsAre("direct"));
}

TEST_F(PathLinksTest, asksSeldomWhereNothingIsSaid)
{
    start();
    join(street, Kind::direct, "direct");
    join(relay, Kind::oneRelay, "relay");
    queues.advance(10s);
    for (End& end : ends) end.speak(); // the last word of a conversation
    queues.advance(1s);
    street.carried = relay.carried = 0;
    queues.advance(60s);
    EXPECT_LE(street.carried, 4 * 31); // a question and an answer from each end every two seconds
    EXPECT_LE(relay.carried, 4 * 13);
    for (End& end : ends) EXPECT_EQ(end.story.size(), 1u);
}

TEST_F(PathLinksTest, believesOnlyThePeersAnswersOverTheWayThatWasAsked)
{
    start();
    RawUDP liar;
    End& end = ends[0];
    end.links.add(Path::direct(liar.address), liar.address, Kind::direct, "liar");
    end.links.add(street.way(0), street.way(0).address, Kind::direct, "asked");
    street.isCut = true;
    queues.runReady();
    const auto checks = liar.receive();
    ASSERT_FALSE(checks.empty());
    const auto request = StunMessage::parse(checks.front().bytes);
    const auto& theirs = ends[1].local.password;
    StunMessage success{
        StunMessage::Method::binding, StunMessage::Class::success, request->transactionID, {}};
    const auto sealed = [&](std::string_view password) {
        return success.serialize({reinterpret_cast<const std::uint8_t*>(password.data()), password.size()});
    };
    const auto own = loopback(end.proxy->network().localAddress().port);
    liar.send(success.serialize(), own);
    liar.send(sealed("another password"), own);
    RawUDP().send(sealed(theirs), own); // right, but from elsewhere
    queues.runReady();
    EXPECT_FALSE(end.links.chosen());
    EXPECT_TRUE(end.proxy->validatedPeers.empty());
    liar.send(sealed(theirs), own);
    queues.runReady();
    EXPECT_EQ(end.links.chosen()->label(), "liar");
}

} // namespace
} // namespace pelorin
