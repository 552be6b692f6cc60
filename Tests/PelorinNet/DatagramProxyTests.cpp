#include "PelorinNet/Path/DatagramProxy.h"

#include "PelorinNet/Stun/ChannelData.h"
#include "PelorinNet/Stun/StunMessage.h"
#include "Tests/PelorinNet/QueueHarness.h"
#include "Tests/PelorinNet/ScriptedRelay.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <malloc.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Path = DatagramProxy::Path;

constexpr std::uint16_t channel = 0x4001;

Bytes quicDatagram(std::size_t size, std::size_t seed = 0)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = std::uint8_t(seed + i);
    if (size > 0) bytes[0] = 0x40 | (bytes[0] & 0x3F);
    return bytes;
}

std::vector<Bytes> bytesOf(const RawUDP& socket)
{
    std::vector<Bytes> all;
    for (auto& datagram : socket.receive()) all.push_back(std::move(datagram.bytes));
    return all;
}

// A relay that gives to everybody who knows the password.
class WillingRelay : public ScriptedRelay {
public:
    // Answers requests; what else arrives is kept.
    bool serve()
    {
        bool isAnyServed = false;
        for (auto& [bytes, source] : receive()) {
            client = source;
            const auto request = StunMessage::parse(bytes);
            if (!request || request->messageClass != Class::request) {
                passedOn.push_back(std::move(bytes));
                continue;
            }
            isAnyServed = true;
            request->attribute(Type::messageIntegrity) ? accept({*request, bytes, source})
                                                       : challenge({*request, bytes, source});
        }
        return isAnyServed;
    }

    std::vector<Bytes> passedOn;
    SocketAddress client;
};

class DatagramProxies : public testing::Test {
protected:
    DatagramProxies()
    {
        proxy->onOtherDatagram = [&](ByteView bytes, const SocketAddress& source) {
            others.emplace_back(bytes.begin(), bytes.end());
            lastOther = source;
        };
    }

    SocketAddress networkAddress() const
    {
        return SocketAddress::ipv4({127, 0, 0, 1}, proxy->network().localAddress().port);
    }
    void fromQuic(const Bytes& bytes)
    {
        quic.send(bytes, proxy->local().localAddress());
        queues.runReady();
    }
    void toNetwork(const RawUDP& from, const Bytes& bytes)
    {
        from.send(bytes, networkAddress());
        queues.runReady();
    }
    void goDirect()
    {
        proxy->quicEndpoint = quic.address;
        proxy->validatedPeers.insert(peer.address);
        proxy->path = Path::direct(peer.address);
    }
    // An allocation on the relay, with one channel, known to the proxy.
    std::unique_ptr<TurnClient> allocate(WillingRelay& relay)
    {
        auto socket = UDPSocket::open("127.0.0.1", 0, queue).value();
        auto turn = std::make_unique<TurnClient>(
            std::move(socket), std::vector{relay.address}, relay.credentials, queue);
        bool isBound = false;
        turn->allocate([&](const auto& allocated) { EXPECT_TRUE(allocated); });
        settle(relay);
        turn->channelBind(peer.address, channel, [&](const auto& bound) { isBound = bound.has_value(); });
        settle(relay);
        EXPECT_TRUE(isBound);
        proxy->add(*turn);
        proxy->openChannel(*turn, channel);
        return turn;
    }
    void settle(WillingRelay& relay)
    {
        do queues.runReady();
        while (relay.serve());
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.path");
    std::unique_ptr<DatagramProxy> proxy = DatagramProxy::open(queue).value();
    RawUDP quic, peer;
    std::vector<Bytes> others;
    SocketAddress lastOther;
};

TEST_F(DatagramProxies, carryQuicBothWaysOverADirectPath)
{
    goDirect();
    proxy->quicEndpoint.reset(); // learned
    std::vector<Bytes> sent;
    for (int i = 0; i < 200; ++i) sent.push_back(quicDatagram(i % 50 == 49 ? 77 : 1'350, std::size_t(i)));
    for (const auto& bytes : sent) quic.send(bytes, proxy->local().localAddress());
    queues.runReady();
    EXPECT_TRUE(bytesOf(peer) == sent);
    EXPECT_EQ(proxy->quicEndpoint, quic.address);
    for (const auto& bytes : sent) peer.send(bytes, networkAddress());
    queues.runReady();
    const auto arrived = quic.receive();
    ASSERT_EQ(arrived.size(), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(arrived[i].bytes == sent[i]);
        EXPECT_EQ(arrived[i].source, proxy->local().localAddress());
    }
    EXPECT_TRUE(others.empty());
    EXPECT_EQ(proxy->statistics(), "sent 200, received 200, last received 0.0 s ago");
}

TEST_F(DatagramProxies, countWhatQuicMayNotSend)
{
    EXPECT_EQ(proxy->statistics(), "sent 0, received 0");
    fromQuic(quicDatagram(100)); // no path yet: dropped without a word
    EXPECT_EQ(proxy->quicEndpoint, quic.address);
    RawUDP stranger;
    stranger.send(quicDatagram(2'000), proxy->local().localAddress()); // ignored before it is measured
    queues.runReady();
    goDirect();
    fromQuic(quicDatagram(1'351));
    fromQuic(quicDatagram(1'350));
    fromQuic(quicDatagram(20));
    EXPECT_THAT(bytesOf(peer), ElementsAre(quicDatagram(1'350), quicDatagram(20)));
    toNetwork(peer, quicDatagram(30));
    queues.advance(2'340ms);
    EXPECT_EQ(proxy->statistics(),
        fmt::format(
            "sent 2, received 1, last received 2.3 s ago, dropped 1 oversize, ignored 1 from local port {}",
            stranger.address.port));
    EXPECT_EQ(proxy->counters().largestSent, 1'350);
}

TEST_F(DatagramProxies, letNobodyButValidatedPeersReachQuic)
{
    goDirect();
    RawUDP stranger;
    Bytes check = StunMessage{}.serialize();
    Bytes almost = check;
    almost[4] ^= 1; // no cookie
    const struct {
        const RawUDP& from;
        Bytes bytes;
        bool reachesQuic;
    } rows[] = {
        {peer, quicDatagram(50), true},
        {peer, {}, true},
        {peer, quicDatagram(19), true},
        {peer, quicDatagram(9'000), true},
        {peer, almost, true},
        {peer, check, false},
        {stranger, quicDatagram(50), false},
        {stranger, check, false},
        {stranger, {}, false},
    };
    for (const auto& row : rows) {
        others.clear();
        toNetwork(row.from, row.bytes);
        EXPECT_EQ(bytesOf(quic), std::vector<Bytes>(row.reachesQuic ? 1 : 0, row.bytes));
        EXPECT_EQ(others, std::vector<Bytes>(row.reachesQuic ? 0 : 1, row.bytes));
        EXPECT_TRUE(row.reachesQuic || lastOther == row.from.address);
    }
    EXPECT_EQ(proxy->counters().received, 5);
    EXPECT_TRUE(peer.receive().empty()); // nothing was answered
    EXPECT_TRUE(stranger.receive().empty());

    proxy->quicEndpoint.reset();
    toNetwork(peer, quicDatagram(50));
    EXPECT_EQ(proxy->counters().received, 5); // there is nobody to hear it
}

TEST_F(DatagramProxies, carryQuicOverARelaysOpenChannels)
{
    WillingRelay relay;
    const auto turn = allocate(relay);
    proxy->quicEndpoint = quic.address;
    proxy->path = Path::relayed(*turn, channel);
    std::vector<Bytes> sent, framed;
    for (int i = 0; i < 100; ++i) sent.push_back(quicDatagram(i == 60 ? 1'349 : 1'350, std::size_t(i)));
    for (const auto& bytes : sent) framed.push_back(ChannelData::frame(channel, bytes));
    for (const auto& bytes : sent) quic.send(bytes, proxy->local().localAddress());
    settle(relay);
    EXPECT_TRUE(relay.passedOn == framed);
    for (const auto& bytes : framed) relay.send(bytes, relay.client);
    queues.runReady();
    EXPECT_TRUE(bytesOf(quic) == sent);

    std::vector<std::pair<Bytes, Path>> checks;
    proxy->onRelayedStun = [&](ByteView bytes, const Path& over) {
        checks.emplace_back(Bytes(bytes.begin(), bytes.end()), over);
    };
    const Bytes check = StunMessage{}.serialize();
    relay.send(ChannelData::frame(channel, check), relay.client);
    relay.send(ChannelData::frame(channel + 1, check), relay.client); // never opened
    relay.send(ChannelData::frame(channel + 1, sent[0]), relay.client);
    RawUDP stranger;
    stranger.send(framed[0], relay.client); // not from the relay
    queues.runReady();
    EXPECT_TRUE(quic.receive().empty());
    ASSERT_EQ(checks.size(), 1);
    EXPECT_EQ(checks[0], std::pair(check, Path::relayed(*turn, channel)));

    relay.passedOn.clear();
    proxy->send(check, Path::relayed(*turn, channel));
    proxy->send(check, Path::direct(peer.address));
    settle(relay);
    EXPECT_THAT(relay.passedOn, ElementsAre(ChannelData::frame(channel, check)));
    EXPECT_THAT(bytesOf(peer), ElementsAre(check));

    relay.passedOn.clear();
    proxy->blockedTurn = turn.get();
    for (int i = 0; i < 3; ++i) fromQuic(sent[0]);
    settle(relay);
    EXPECT_TRUE(relay.passedOn.empty());
    EXPECT_EQ(proxy->counters().sent, 100);
    EXPECT_EQ(
        proxy->statistics(), "sent 100, received 100, last received 0.0 s ago, dropped 3 by the test switch");

    proxy->remove(*turn);
    EXPECT_FALSE(proxy->path);
    relay.send(framed[0], relay.client);
    fromQuic(sent[0]);
    EXPECT_TRUE(quic.receive().empty());
}

TEST_F(DatagramProxies, stayUnharmedByAFloodOfStrangers)
{
    goDirect();
    proxy->onOtherDatagram = [](ByteView, const SocketAddress&) {};
    std::vector<std::unique_ptr<RawUDP>> strangers;
    for (int i = 0; i < 20; ++i) strangers.push_back(std::make_unique<RawUDP>());
    const Bytes noise = quicDatagram(40), check = StunMessage{}.serialize(), real = quicDatagram(1'350);
    const auto flood = [&] {
        for (int i = 0; i < 500; ++i)
            strangers[std::size_t(i % 20)]->send(i % 2 ? noise : check, networkAddress());
        peer.send(real, networkAddress());
        quic.send(real, proxy->local().localAddress());
        queues.runReady();
        EXPECT_EQ(bytesOf(quic), std::vector<Bytes>{real});
        EXPECT_EQ(bytesOf(peer), std::vector<Bytes>{real});
    };
    flood();
    const std::size_t before = ::mallinfo2().uordblks;
    for (int round = 0; round < 80; ++round) flood();
    EXPECT_LE(::mallinfo2().uordblks, before + 16'384);
    EXPECT_EQ(proxy->counters().received, 81);
}

TEST_F(DatagramProxies, tellThatAPeerIsGone)
{
    goDirect();
    std::vector<SocketAddress> gone;
    proxy->onUnreachable = [&](const SocketAddress& who) { gone.push_back(who); };
    peer.close();
    fromQuic(quicDatagram(50));
    EXPECT_THAT(gone, ElementsAre(peer.address));
    quic.close(); // but QUIC's own end is no path
    RawUDP other;
    proxy->validatedPeers.insert(other.address);
    toNetwork(other, quicDatagram(50));
    EXPECT_EQ(gone.size(), 1);
}

TEST_F(DatagramProxies, tellThatThePeerSendsOverAnotherPath)
{
    goDirect();
    RawUDP other;
    proxy->validatedPeers.insert(other.address);
    WillingRelay relay;
    auto turn = allocate(relay);
    const Path relayed = Path::relayed(*turn, channel);
    std::vector<Path> changes;
    proxy->onArrivalPathChange = [&](const Path& over) { changes.push_back(over); };
    for (const RawUDP* from : {&peer, &peer, &other, &other, &peer}) toNetwork(*from, quicDatagram(50));
    toNetwork(other, StunMessage{}.serialize()); // checks say nothing about QUIC
    EXPECT_EQ(changes,
        (std::vector{Path::direct(peer.address), Path::direct(other.address), Path::direct(peer.address)}));
    relay.send(ChannelData::frame(channel, quicDatagram(50)), relay.client);
    queues.runReady();
    EXPECT_EQ(changes.back(), relayed);
    proxy->remove(*turn);
    turn.reset();
    toNetwork(other, quicDatagram(50));
    EXPECT_EQ(changes.size(), 5);
    EXPECT_EQ(quic.receive().size(), 7);
}

TEST_F(DatagramProxies, mayBeDestroyedInAnyCallback)
{
    for (const std::string where : {"other", "relayed", "unreachable", "arrival"}) {
        SCOPED_TRACE(where);
        proxy = DatagramProxy::open(queue).value();
        goDirect();
        WillingRelay relay;
        RawUDP gone, other;
        gone.close();
        auto turn = allocate(relay);
        const SocketAddress to = networkAddress();
        const auto end = [&] { proxy.reset(); };
        if (where == "other") proxy->onOtherDatagram = [&](ByteView, const SocketAddress&) { end(); };
        if (where == "relayed") proxy->onRelayedStun = [&](ByteView, const Path&) { end(); };
        if (where == "unreachable") proxy->onUnreachable = [&](const SocketAddress&) { end(); };
        if (where == "arrival") proxy->onArrivalPathChange = [&](const Path&) { end(); };
        proxy->validatedPeers.insert(other.address);
        if (where == "unreachable") proxy->send(StunMessage{}.serialize(), Path::direct(gone.address));
        for (int i = 0; i < 3; ++i) {
            if (where == "relayed")
                relay.send(ChannelData::frame(channel, StunMessage{}.serialize()), relay.client);
            else if (where == "other")
                peer.send(StunMessage{}.serialize(), to);
            else
                (i == 0 ? peer : other).send(quicDatagram(50), to);
        }
        queues.runReady();
        EXPECT_FALSE(proxy);
        proxy.reset();
        relay.send(ChannelData::frame(channel, quicDatagram(9)), relay.client); // a relay it no longer serves
        queues.runReady();
    }
}

} // namespace
} // namespace pelorin
