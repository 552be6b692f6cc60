#include "PelorinNet/Path/Relay.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/ScriptedRelay.h"

#include <map>
#include <set>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

SocketAddress peer(int number)
{
    return SocketAddress::ipv4({203, 0, 113, std::uint8_t(number)}, 7'000);
}

class RelayTest : public testing::Test {
protected:
    // Lets the server grant what is asked; the channels that were bound, each as often as it was.
    std::multimap<std::uint16_t, SocketAddress> serve()
    {
        std::multimap<std::uint16_t, SocketAddress> bound;
        for (bool isIdle = false; !isIdle;) {
            queues.runReady();
            isIdle = true;
            for (const auto& request : server.received()) {
                isIdle = false;
                if (!request.message.attribute(ScriptedRelay::Type::username)) {
                    server.challenge(request);
                    continue;
                }
                if (request.message.method == StunMessage::Method::channelBind) {
                    const auto number = *request.message.attribute(ScriptedRelay::Type::channelNumber);
                    bound.emplace(std::uint16_t(number[0] << 8 | number[1]),
                        *request.message.xorAddress(ScriptedRelay::Type::xorPeerAddress));
                }
                const bool isRefused
                    = refused && refused == request.message.xorAddress(ScriptedRelay::Type::xorPeerAddress);
                isRefused ? server.refuse(request, 403, "Forbidden") : server.accept(request);
            }
        }
        return bound;
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.path");
    const std::unique_ptr<DatagramProxy> proxy = std::move(*DatagramProxy::open(queue));
    ScriptedRelay server;
    std::optional<SocketAddress> refused;
    Relay relay{*proxy, queue,
        [this](const PathServers::Server&, const QueueRef&, const auto& done) { done({server.address}); },
        {"relay.example", 3478}, server.credentials, "relay"};
};

TEST_F(RelayTest, asksOnceForEachChannel)
{
    relay.reach(peer(1));
    relay.onAllocated = [this](const Candidate& candidate) {
        EXPECT_EQ(candidate, (Candidate{server.relayed, "relay"}));
        relay.reach(peer(2));
    };
    relay.start();
    const std::multimap<std::uint16_t, SocketAddress> both{{0x4000, peer(1)}, {0x4001, peer(2)}};
    EXPECT_EQ(serve(), both);
    relay.reach(peer(2));
    EXPECT_TRUE(serve().empty());
    queues.advance(240s);
    EXPECT_EQ(serve(), both);
}

TEST_F(RelayTest, renewsBeforeALifetimeEndsThatIsShorterThanAsked)
{
    server.lifetime = 100;
    relay.reach(peer(1));
    relay.start();
    EXPECT_EQ(serve().size(), 1u);
    queues.advance(49s);
    EXPECT_TRUE(serve().empty());
    queues.advance(1s);
    EXPECT_EQ(serve().size(), 1u);
    server.lifetime = 0; // senseless, and must not have us flood it
    queues.advance(50s);
    EXPECT_EQ(serve().size(), 1u);
    for (int i = 0; i < 3; ++i) {
        queues.advance(10s - 1ms);
        EXPECT_TRUE(serve().empty());
        queues.advance(1ms);
        EXPECT_EQ(serve().size(), 1u);
    }
}

TEST_F(RelayTest, goesOnWithFreshCredentialsWhenTheServerTakesTheOldOnesNoMore)
{
    int lost = 0;
    relay.onLost = [&](TurnClient&) { ++lost; };
    relay.reach(peer(1));
    relay.start();
    EXPECT_EQ(serve().size(), 1u);
    const TurnCredentials fresh{"later", "other"};
    relay.setCredentials(fresh);
    queues.advance(240s);
    EXPECT_EQ(serve().size(), 1u); // what stands stays
    EXPECT_EQ(lost, 0);

    server.credentials = fresh; // answers that are signed with the old key are over
    queues.advance(240s);
    for (int i = 0; i < 3; ++i) { // refused as often as it is tried
        for (const auto& request : server.received()) server.challenge(request);
        queues.runReady();
    }
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(serve().size(), 1u);
    ASSERT_TRUE(relay.client() && relay.client()->relayed());
}

TEST_F(RelayTest, reachesAPeerHoweverOftenThatHasMoved)
{
    relay.isNeeded = [](const DatagramProxy::Path& way) { return way.channel == 0x4000; };
    relay.start();
    std::set<std::uint16_t> numbers;
    for (int i = 0; i < 100; ++i) {
        relay.reach(peer(i));
        const auto bound = serve();
        ASSERT_EQ(bound.size(), 1u);
        EXPECT_EQ(bound.begin()->second, peer(i));
        EXPECT_TRUE(numbers.insert(bound.begin()->first).second) << "a relay keeps a number for its address";
    }
    queues.advance(240s);
    const auto renewed = serve();
    EXPECT_EQ(renewed.size(), 16u);
    ASSERT_TRUE(renewed.contains(0x4000)) << "in use";
    EXPECT_EQ(renewed.find(0x4000)->second, peer(0));
    EXPECT_TRUE(renewed.contains(*numbers.rbegin()));
}

TEST_F(RelayTest, triesAnAddressThatTheServerRefusesTwiceMoreUntilTheNextRenewal)
{
    refused = peer(1);
    relay.reach(peer(1));
    relay.start();
    std::size_t tries = 0;
    for (int second = 0; second < 480; ++second, queues.advance(1s)) {
        if (second == 239) {
            EXPECT_EQ(tries, 3u);
        }
        tries += serve().size();
    }
    EXPECT_EQ(tries, 6u);
    refused.reset(); // the renewal is due at this very moment
    EXPECT_EQ(serve().size(), 1u);
}

} // namespace
} // namespace pelorin
