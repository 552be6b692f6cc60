#include "PelorinNet/Path/StunBinder.h"
#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/TurnServer.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/RawUDP.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using lab::TurnServer;
using testing::StartsWith;

// Our clients beside a real relay. Their clock stands still, so whatever succeeds does so without any
// repetition of ours, and what fails does so in the relay's words.
class RealRelay : public testing::Test {
protected:
    std::unique_ptr<TurnClient> makeClient(
        const std::vector<SocketAddress>& relays, const TurnCredentials& credentials)
    {
        auto socket = UDPSocket::open("127.0.0.1", 0, queue);
        return std::make_unique<TurnClient>(std::move(*socket), relays, credentials, queue);
    }
    std::unique_ptr<TurnClient> makeClient(const TurnServer& server)
    {
        return makeClient({server.address()}, TurnServer::credentials());
    }

    bool eventually(const std::function<bool()>& condition)
    {
        return lab::eventually([&] {
            queues.runReady();
            return condition();
        });
    }

    // The text of the relayed address, or of the failure.
    std::string allocate(TurnClient& client)
    {
        std::optional<Result<SocketAddress, NetError>> result;
        client.allocate([&](const auto& allocated) { result = allocated; });
        if (!eventually([&] { return result.has_value(); })) return "no answer";
        return *result ? (*result)->text() : result->error().description;
    }
    // Nothing, or the text of the failure.
    std::string outcome(const std::function<void(TurnClient::Done)>& request)
    {
        std::optional<Result<void, NetError>> result;
        request([&](const auto& done) { result = done; });
        if (!eventually([&] { return result.has_value(); })) return "no answer";
        return *result ? "" : result->error().description;
    }
    std::string refresh(TurnClient& client)
    {
        return outcome([&](auto done) { client.refresh(std::move(done)); });
    }
    std::string bind(TurnClient& client, const SocketAddress& peer, std::uint16_t channel)
    {
        return outcome([&](auto done) { client.channelBind(peer, channel, std::move(done)); });
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
};

Bytes payload(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = std::uint8_t(i * 7 + size);
    return bytes;
}

TEST_F(RealRelay, carriesDataThroughABoundChannelBothWays)
{
    const TurnServer server;
    const RawUDP peer;
    const auto client = makeClient(server);
    const auto relayed = allocate(*client);
    ASSERT_TRUE(client->relayed()) << relayed;
    EXPECT_TRUE(client->mapped());
    ASSERT_EQ(bind(*client, peer.address, 0x4001), "");
    EXPECT_EQ(outcome([&](auto done) { client->createPermission(peer.address, std::move(done)); }), "");
    EXPECT_EQ(client->verifiedResponses(), 3u);

    std::vector<std::pair<std::uint16_t, Bytes>> received;
    client->onChannelData = [&](std::uint16_t channel, ByteView bytes) {
        received.emplace_back(channel, Bytes(bytes.begin(), bytes.end()));
    };
    const std::size_t sizes[] = {0, 1, 2, 3, 4, 1'349, 1'350};
    for (const auto size : sizes) {
        SCOPED_TRACE(size);
        const auto sent = payload(size);
        client->send(0x4001, sent);
        ASSERT_TRUE(peer.waitReadable(20'000));
        const auto arrived = peer.receive();
        ASSERT_EQ(arrived.size(), 1u);
        EXPECT_EQ(arrived[0].bytes, sent);
        EXPECT_EQ(arrived[0].source.text(), relayed);

        received.clear();
        peer.send(sent, *client->relayed());
        ASSERT_TRUE(eventually([&] { return !received.empty(); }));
        EXPECT_EQ(received, (std::vector<std::pair<std::uint16_t, Bytes>>{{0x4001, sent}}));
    }
}

TEST_F(RealRelay, sendsARunOfDatagramsThatWaitedForTheFlush)
{
    const TurnServer server;
    const RawUDP peer;
    const auto client = makeClient(server);
    allocate(*client);
    ASSERT_EQ(bind(*client, peer.address, 0x4FFF), "");

    std::vector<Bytes> sent;
    for (std::size_t i = 0; i < 200; ++i) sent.push_back(payload(i < 150 ? 1'201 : i));
    for (const auto& each : sent) client->enqueue(0x4FFF, each);
    client->flush();
    std::vector<Bytes> arrived;
    EXPECT_TRUE(eventually([&] {
        for (auto& datagram : peer.receive()) arrived.push_back(std::move(datagram.bytes));
        return arrived.size() >= sent.size();
    }));
    EXPECT_EQ(arrived, sent);
}

TEST_F(RealRelay, renewsItsNonceAndNobodyNotices)
{
    const TurnServer server({.user = TurnCredentials{"jane", "right"}, .more = {"--stale-nonce=3"}});
    const auto client = makeClient({server.address()}, {"jane", "right"});
    allocate(*client);
    ASSERT_TRUE(client->relayed());
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(refresh(*client), "");
        return testing::Test::HasFailure() || server.log().find("error 438") != std::string::npos;
    }));
    EXPECT_EQ(refresh(*client), "");
}

TEST_F(RealRelay, refusesInWords)
{
    const TurnServer server({.user = TurnCredentials{"jane", "right"}});
    const auto wrong = makeClient({server.address()}, {"jane", "wrong"});
    EXPECT_EQ(allocate(*wrong), "allocate failed: 401 Unauthorized");
    EXPECT_FALSE(wrong->relayed());

    const auto client = makeClient({server.address()}, {"jane", "right"});
    EXPECT_THAT(refresh(*client), StartsWith("refresh failed: 437 "));
    allocate(*client);
    ASSERT_TRUE(client->relayed());
    EXPECT_THAT(allocate(*client), StartsWith("allocate failed: 437 "));
    // A channel is bound to one peer at a time.
    EXPECT_EQ(bind(*client, SocketAddress::ipv4({127, 0, 0, 1}, 5'000), 0x4000), "");
    EXPECT_THAT(bind(*client, SocketAddress::ipv4({127, 0, 0, 1}, 5'001), 0x4000),
        StartsWith("channelBind failed: 400 "));
    EXPECT_THAT(
        bind(*client, *SocketAddress::parse("::1", 5'002), 0x4001), StartsWith("channelBind failed: 443 "));
    EXPECT_EQ(refresh(*client), "");
}

// What is allocated outlives its credentials, stale nonces included; what has to be allocated anew does not.
TEST_F(RealRelay, asksForCredentialsThatHaveNotEndedOnlyOnce)
{
    const TurnServer server({.more = {"--stale-nonce=1"}});
    const auto ending = TurnServer::credentials("lab", std::chrono::seconds(lab::slowness > 1 ? 8 : 3));
    const auto client = makeClient({server.address()}, ending);
    allocate(*client);
    ASSERT_TRUE(client->relayed());
    EXPECT_TRUE(eventually([&] {
        return allocate(*makeClient({server.address()}, ending)) == "allocate failed: 401 Unauthorized";
    }));
    const auto isStale = [&, before = server.log().size()] {
        return server.log().find("error 438", before) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(refresh(*client), "");
        return testing::Test::HasFailure() || isStale();
    }));
    EXPECT_EQ(bind(*client, SocketAddress::ipv4({127, 0, 0, 1}, 5'000), 0x4000), "");
}

TEST_F(RealRelay, getsItsAllocationBackWhenTheClientGoes)
{
    const TurnServer server({.user = TurnCredentials{"jane", "right"}, .more = {"--user-quota=1"}});
    auto first = makeClient({server.address()}, {"jane", "right"});
    allocate(*first);
    ASSERT_TRUE(first->relayed());
    EXPECT_EQ(allocate(*makeClient({server.address()}, {"jane", "right"})),
        "allocate failed: 486 Allocation Quota Reached");
    first.reset();
    EXPECT_TRUE(eventually([&] {
        const auto next = makeClient({server.address()}, {"jane", "right"});
        allocate(*next);
        return next->relayed().has_value();
    }));
}

TEST_F(RealRelay, isFoundAmongDeadAddresses)
{
    const TurnServer server;
    const RawUDP silent;
    const auto client = makeClient({silent.address, SocketAddress::ipv4({127, 0, 0, 1}, 9), server.address()},
        TurnServer::credentials());
    allocate(*client);
    EXPECT_TRUE(client->relayed());
    EXPECT_EQ(client->server(), server.address());
}

// With the configuration that we ship, and the secret put in as its guide says.
TEST_F(RealRelay, isNoWayIntoTheNetworkAroundIt)
{
    const lab::TemporaryFolder folder;
    std::string configuration = lab::contentOf(lab::sourcePath("Packaging/rendezvous/turnserver.conf"));
    const std::string placeholder = "REPLACE-WITH-THE-SECRET";
    const auto at = configuration.find(placeholder);
    ASSERT_NE(at, configuration.npos);
    lab::write(
        folder.path() / "turnserver.conf", configuration.replace(at, placeholder.size(), TurnServer::secret));
    const TurnServer server(
        TurnServer::Options{.configuration = (folder.path() / "turnserver.conf").string()});
    const auto client = makeClient(server);
    const auto relayed = allocate(*client);
    ASSERT_THAT(relayed, StartsWith("127.0.0.1:")) << server.log();

    const auto permit = [&](const char* address) {
        const auto peer = SocketAddress::parse(address, 7'000);
        EXPECT_TRUE(peer) << address;
        return outcome([&](auto done) { client->createPermission(*peer, std::move(done)); });
    };
    for (const char* inside :
        {"0.0.0.0", "10.0.0.1", "10.255.255.255", "100.64.0.1", "127.0.0.1", "127.9.9.9", "169.254.169.254",
            "172.16.0.1", "172.31.255.255", "192.168.1.1", "198.18.0.1", "224.0.0.1", "255.255.255.255"})
        EXPECT_THAT(permit(inside), StartsWith("createPermission failed: 403")) << inside;
    for (const char* outside : {"9.255.255.255", "11.0.0.0", "100.63.255.255", "100.128.0.0",
             "172.15.255.255", "172.32.0.0", "192.167.255.255", "198.51.100.2", "223.255.255.255"})
        EXPECT_EQ(permit(outside), "") << outside;
}

TEST_F(RealRelay, tellsHowItSeesOurSocket)
{
    const TurnServer server;
    const auto socket = *UDPSocket::open("127.0.0.1", 0, queue);
    StunBinder binder(queue);
    socket->onReceive
        = [&](ByteView datagram, const SocketAddress&) { EXPECT_TRUE(binder.handle(datagram)); };
    std::optional<Result<SocketAddress, NetError>> seen;
    binder.binding(*socket, server.address(), [&](const auto& address) { seen = address; });
    ASSERT_TRUE(eventually([&] { return seen.has_value(); }));
    EXPECT_EQ(*seen, socket->localAddress());
}

} // namespace
} // namespace pelorin
