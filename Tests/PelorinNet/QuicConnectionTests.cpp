// Connections and their streams over lines of all kinds, to peers of all kinds.
#include "Tests/PelorinNet/QueueHarness.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <random>

using namespace pelorin;
using namespace std::chrono_literals;
using testing::StartsWith;

namespace {

constexpr std::size_t streamWindow = 4 << 20;

// Bytes that tell their place, so that a lost, doubled or swapped piece shows.
Bytes numbered(std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = std::uint8_t(i * 2654435761u >> 13);
    return bytes;
}

class QuicConnections : public QuicTest {
protected:
    std::unique_ptr<Channel> unread;
};

} // namespace

TEST_F(QuicConnections, carryEverythingWholeHoweverTheLineMistreatsIt)
{
    const struct {
        const char* name;
        DatagramWire::Quality quality;
        int spoils = 0; // every so manieth datagram: changed, doubled and cut in turn
    } rows[] = {
        {"fine", {}},
        {"slow", {.delay = 60ms, .bitsPerSecond = 20e6}},
        {"lossy", {.delay = 20ms, .loss = 0.05}},
        {"very lossy", {.delay = 20ms, .loss = 0.25}},
        {"disordered", {.delay = 5ms, .jitter = 40ms, .keepsOrder = false}},
        {"short of room", {.delay = 20ms, .bitsPerSecond = 10e6, .queueBytes = 5000}},
        {"spoiling", {.delay = 5ms}, 7},
        {"everything",
            {.delay = 20ms, .jitter = 30ms, .keepsOrder = false, .loss = 0.03, .bitsPerSecond = 30e6}, 11},
    };
    for (const auto& [name, quality, spoils] : rows) {
        SCOPED_TRACE(name);
        phone = {};
        hosts.clear();
        connectOver(quality);
        int count = 0;
        if (spoils > 0)
            wire->tap = [&](Bytes& datagram, DatagramWire::Way way) {
                if (++count % spoils != 0) return;
                const int kind = count / spoils % 3;
                if (kind == 0) datagram[std::size_t(count) % datagram.size()] ^= 0x10;
                if (kind == 1) wire->send(way, datagram);
                if (kind == 2) datagram.resize(datagram.size() / 2);
            };
        constexpr std::size_t size = 400'000;
        int sent = 0;
        phoneStream().send(numbered(size), [&] { ++sent; });
        hostStream().send(numbered(size), [&] { ++sent; });
        phoneStream().finish();
        EXPECT_TRUE(advanceUntil([&] { return host().streams[0]->closed.has_value(); }, 1s))
            << "finished within its second, whether or not it could send all";
        if (quality.loss < 0.1 && quality.bitsPerSecond == 0) {
            EXPECT_EQ(host().streams[0]->received, numbered(size));
            EXPECT_EQ(host().streams[0]->closed, "in order");
        }

        auto& again = phone.open();
        again.channel->send(numbered(size), [&] { ++sent; });
        ASSERT_TRUE(advanceUntil([&] { return host().streams.size() == 2; }));
        host().streams[1]->channel->send(numbered(size), [&] { ++sent; });
        ASSERT_TRUE(advanceUntil(
            [&] { return host().streams[1]->received.size() == size && again.received.size() == size; }));
        EXPECT_EQ(host().streams[1]->received, numbered(size));
        EXPECT_EQ(again.received, numbered(size));
        EXPECT_FALSE(phone.closed);
        EXPECT_FALSE(host().closed);
    }
}

TEST_F(QuicConnections, stayWhileAStreamIsOpenAndGoFifteenSecondsAfterTheLast)
{
    connectOver({.delay = 20ms});
    queues.advance(300s);
    EXPECT_FALSE(phone.closed);
    EXPECT_FALSE(host().closed);
    phoneStream().send(Bytes(1000));
    queues.advance(1s);
    EXPECT_EQ(host().streams[0]->received.size(), 1000u);

    EXPECT_EQ(phone.lastStreamEnds, 0);
    phoneStream().finish();
    queues.advance(1s);
    EXPECT_EQ(phone.lastStreamEnds, 1);
    EXPECT_EQ(host().lastStreamEnds, 1);
    queues.advance(13s);
    EXPECT_FALSE(phone.closed);
    queues.advance(3s);
    EXPECT_EQ(phone.closed, "QUIC failed: the peer was silent for 15 s");
    EXPECT_EQ(host().closed, phone.closed);
}

TEST_F(QuicConnections, noticeAPeerThatVanishes)
{
    for (const bool isBusy : {false, true}) {
        SCOPED_TRACE(isBusy);
        phone = {};
        hosts.clear();
        connectOver({.delay = 20ms});
        wire->tap = [](Bytes& datagram, auto) { datagram.clear(); };
        if (isBusy) hostStream().send(Bytes(1'000'000), [] { ADD_FAILURE() << "it was not taken"; });
        queues.advance(14s);
        EXPECT_FALSE(host().closed);
        queues.advance(7s);
        for (const QuicEndOfConnection* end : {&phone, &host()}) {
            EXPECT_EQ(end->closed, "QUIC failed: the peer was silent for 15 s");
            EXPECT_EQ(end->streams[0]->closed, end->closed);
            EXPECT_FALSE(end->streams[0]->channel->hasFailedHandshake());
        }
    }
}

TEST_F(QuicConnections, outliveFiveSecondsWithoutAPathAndAnAddressThatChanges)
{
    connectOver({.delay = 20ms});
    const auto exchange = [&] {
        for (QuicEndOfConnection* end : {&phone, &host()}) end->streams[0]->received.clear();
        phoneStream().send(Bytes(200'000));
        hostStream().send(Bytes(200'000));
        return advanceUntil([&] {
            return host().streams[0]->received.size() >= 200'000
                && phone.streams[0]->received.size() >= 200'000;
        });
    };
    EXPECT_TRUE(exchange());
    wire->tap = [](Bytes& datagram, auto) { datagram.clear(); };
    phoneStream().send(Bytes(100));
    queues.advance(5s);
    wire->tap = nullptr;
    EXPECT_TRUE(exchange());
    for (const char* address : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
        wire->faceTargetFrom(address);
        EXPECT_TRUE(exchange()) << address;
    }
    for (int i = 0; i < 20; ++i) {
        wire->quality.delay = i % 2 ? 5ms : 60ms;
        phone.connection->pathChanged();
        host().connection->pathChanged();
        EXPECT_TRUE(exchange()) << "change " << i;
    }
    wire->quality.delay = 5ms;
    phone.connection->pathChanged();
    host().connection->pathChanged();
    exchange();
    EXPECT_LT(host().connection->smoothedRtt(), 50ms);
    EXPECT_FALSE(phone.closed);
    EXPECT_FALSE(host().closed);
}

TEST_F(QuicConnections, knowAtOnceThatARestartedHostHasLostThem)
{
    connectOver({.delay = 20ms});
    const std::uint16_t port = listener->port();
    // It dies without a word.
    bool isDead = true;
    wire->tap = [&](Bytes& datagram, DatagramWire::Way way) {
        if (isDead && way == DatagramWire::Way::toClient) datagram.clear();
    };
    hosts.clear();
    listener.reset();
    queues.advance(1s);

    const auto other = makeQuicIdentity("host");
    listen(PelorinQUIC::parameters(queues, *other, true, acceptAll), port);
    isDead = false;
    phoneStream().send(Bytes(10));
    queues.advance(1s);
    EXPECT_FALSE(phone.closed) << "anybody could say that";

    listener.reset();
    queues.runReady();
    listen(acceptAll, port);
    phoneStream().send(Bytes(10));
    EXPECT_TRUE(advanceUntil([&] { return phone.closed.has_value(); }, 2s));
    EXPECT_EQ(phone.closed, "QUIC failed: the peer has lost the connection");
    EXPECT_EQ(phone.streams[0]->closed, phone.closed);
}

TEST_F(QuicConnections, endInOrderAtTheOtherEndWhenTheirOwnerLetsGo)
{
    for (const bool hostGoes : {true, false}) {
        phone = {};
        hosts.clear();
        connectOver({.delay = 20ms, .loss = 0.2});
        (hostGoes ? host() : phone).connection.reset();
        const QuicEndOfConnection& left = hostGoes ? phone : host();
        EXPECT_TRUE(advanceUntil([&] { return left.closed.has_value(); }, 14s))
            << "though a word may be lost";
        EXPECT_EQ(left.closed, "in order");
        EXPECT_EQ(left.streams[0]->closed, "in order");
        const QuicEndOfConnection& gone = hostGoes ? host() : phone;
        EXPECT_EQ(gone.streams[0]->closed, "QUIC: the connection was closed");
    }
}

TEST_F(QuicConnections, holdASenderBackWhenTheLineOrTheReaderDoes)
{
    connectOver({.delay = 20ms});
    wire->tap = [](Bytes& datagram, auto) { datagram.clear(); };
    int taken = 0;
    for (int i = 0; i < 100; ++i) hostStream().send(Bytes(10'000), [&] { ++taken; });
    queues.advance(2s);
    EXPECT_LE(taken, 3) << "no more than the first congestion window";
    EXPECT_GE(hostStream().unsentBytes(), 960'000u);
    wire->tap = nullptr;
    EXPECT_TRUE(advanceUntil([&] { return taken == 100; }));

    // A peer that opened a stream and does not read it: here, one that nobody has started.
    phone.connection->onStream = [&](auto channel) {
        phone.streams.push_back(nullptr);
        unread = std::move(channel);
    };
    auto& from = host().open();
    constexpr std::size_t piece = 64 << 10, pieces = 200;
    std::size_t sent = 0;
    for (std::size_t i = 0; i < pieces; ++i) from.channel->send(Bytes(piece), [&] { ++sent; });
    queues.advance(20s);
    EXPECT_LE(sent * piece, streamWindow);
    EXPECT_GT(sent * piece, streamWindow - 2 * piece);
    EXPECT_EQ(from.channel->unsentBytes(), pieces * piece - streamWindow);
    phoneStream().send(Bytes(1000)); // others are not held up
    EXPECT_TRUE(advanceUntil([&] { return host().streams[0]->received.size() == 1000; }));

    QuicEndOfStream reader(std::move(unread), phoneQueue);
    EXPECT_TRUE(advanceUntil([&] { return reader.received.size() == pieces * piece; }));
    EXPECT_EQ(sent, pieces);
}

TEST_F(QuicConnections, loseNothingToStreamsThatAreGivenUpBeforeAnybodyTookThem)
{
    connectOver({.delay = 1ms});
    host().connection->onStream = nullptr;
    const struct {
        int rounds, streams;
        std::size_t bytes;
        Duration time;
    } rows[] = {{200, 1, 300'000, 20ms}, {125, 16, 1, 3ms}};
    for (const auto& [rounds, count, bytes, time] : rows) {
        for (int i = 0; i < rounds; ++i) {
            for (int each = 0; each < count; ++each) phone.open().channel->send(Bytes(bytes));
            queues.advance(time);
            phone.streams.clear();
            queues.advance(time);
        }
    }
    int came = 0;
    host().connection->onStream = [&](auto channel) {
        ++came;
        host().streams.push_back(std::make_unique<QuicEndOfStream>(std::move(channel), hostQueue));
    };
    phone.open().channel->send(Bytes(300'000));
    EXPECT_TRUE(advanceUntil([&] { return host().streams.back()->received.size() == 300'000; }));
    EXPECT_EQ(came, 1);
}

TEST_F(QuicConnections, openAsManyStreamsAsTheyAreAllowedAndTheRestLater)
{
    connectOver({.delay = 20ms});
    // Nobody listens for streams at first.
    host().connection->onStream = nullptr;
    for (std::size_t i = 1; i < 40; ++i) phone.open().channel->send(Bytes(i));
    queues.advance(2s);
    EXPECT_EQ(host().streams.size(), 1u);
    host().connection->onStream = [&](auto channel) {
        host().streams.push_back(std::make_unique<QuicEndOfStream>(std::move(channel), hostQueue));
    };
    queues.advance(1s);
    EXPECT_EQ(host().streams.size(), 16u);
    for (std::size_t i = 0; i < 40; ++i) {
        ASSERT_TRUE(advanceUntil([&] { return host().streams.size() > i; })) << i;
        ASSERT_TRUE(advanceUntil([&] { return host().streams[i]->received.size() == i; })) << i;
        phone.streams[i]->channel->finish();
        ASSERT_TRUE(advanceUntil([&] { return host().streams[i]->closed.has_value(); })) << i;
    }
    EXPECT_TRUE(advanceUntil([&] { return phone.lastStreamEnds == 1 && host().lastStreamEnds == 1; }));
}

TEST_F(QuicConnections, giveAFinishASecondWhenThePeerIsGone)
{
    connectOver({.delay = 20ms});
    wire->tap = [](Bytes& datagram, auto) { datagram.clear(); };
    const auto captured = std::make_shared<int>();
    phoneStream().send(Bytes(500'000), [captured] {});
    phoneStream().finish();
    phone.streams.clear();
    EXPECT_EQ(captured.use_count(), 1);
    queues.advance(999ms);
    EXPECT_EQ(phone.lastStreamEnds, 0);
    queues.advance(1ms);
    EXPECT_EQ(phone.lastStreamEnds, 1);
}

TEST_F(QuicConnections, surviveTheirDestructionInEachOfTheirCallbacks)
{
    for (const std::string_view callback :
        {"ready", "connection", "connection dropped", "stream", "last stream end", "closed", "listener"}) {
        SCOPED_TRACE(callback);
        phone = {};
        hosts.clear();
        listen();
        wire.emplace(wireQueue, listenerAddress());
        bool happened = false;
        const auto captured = std::make_shared<int>(7);
        const auto destroy = [&happened, captured](auto& what) {
            what.reset();
            happened = *captured == 7;
        };
        listener->onConnection = [&](auto connection) {
            auto& end = *hosts.emplace_back(std::make_unique<QuicEndOfConnection>());
            if (callback == "connection dropped") {
                happened = true;
                return;
            }
            end.take(std::move(connection), hostQueue);
            if (callback == "connection") destroy(end.connection);
            if (callback == "listener") destroy(listener);
            if (callback == "stream") end.connection->onStream = [&](auto) { destroy(end.connection); };
        };
        connect(wire->address(), phoneParameters());
        if (callback == "ready") phone.connection->onReady = [&] { destroy(phone.connection); };
        if (callback == "last stream end")
            phone.connection->onLastStreamEnd = [&] { destroy(phone.connection); };
        if (callback == "closed") phone.connection->onClosed = [&](auto) { destroy(phone.connection); };
        phone.open();
        queues.advance(1s);
        if (callback == "last stream end") phoneStream().finish();
        if (callback == "closed") hosts.clear();
        if (callback == "listener") {
            host().open().channel->send(Bytes(100)); // which goes on without it
            EXPECT_TRUE(advanceUntil([&] { return phone.streams.size() == 2; }));
        }
        queues.advance(20s);
        EXPECT_TRUE(happened);
    }
}

TEST_F(QuicConnections, mayBelongToWhatTheyDrop)
{
    connectOver({});
    auto holder = std::make_shared<std::unique_ptr<Channel>>(std::move(phone.streams[0]->channel));
    const auto captured = std::make_shared<int>();
    Channel& channel = **holder;
    channel.onBytes = nullptr;
    channel.onClosed = [captured](auto) {};
    channel.send(Bytes(30'000'000), [holder, captured] {});
    holder.reset();
    hosts.clear(); // takes the connection with it
    queues.runReady();
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(QuicChannels, mayOutliveTheirConnectionOnAnotherQueue)
{
    PoolHarness harness;
    const QueueRef home = harness.makeQueue("home"), session = harness.makeQueue("session");
    const auto identity = makeQuicIdentity("both");
    const auto acceptAll = [](const Bytes&) { return true; };
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::vector<std::unique_ptr<PelorinQUIC::Connection>> hosts;
    harness.runOn(home, [&] {
        listener = PelorinQUIC::Listener::listen(
            home, "127.0.0.1", 0, PelorinQUIC::parameters(harness.pool, *identity, true, acceptAll))
                       .value();
        listener->onConnection = [&](auto made) { hosts.push_back(std::move(made)); };
    });
    for (std::size_t i = 0; i < 50; ++i) {
        std::unique_ptr<PelorinQUIC::Connection> connection;
        std::unique_ptr<Channel> channel;
        std::optional<std::string> closed;
        harness.runOn(home, [&] {
            connection = PelorinQUIC::connect(home, loopbackAddress(listener->port()),
                PelorinQUIC::parameters(harness.pool, *identity, false, acceptAll))
                             .value();
            channel = connection->openStream();
        });
        harness.runOn(session, [&] {
            channel->onClosed = [&](auto error) { closed = error ? error->description : "in order"; };
            channel->start(session);
            channel->send(Bytes(100'000));
        });
        EXPECT_TRUE(i % 2 == 0 || harness.waitUntil(home, [&] { return hosts.size() > i / 2; }));
        harness.runOn(home, [&] { connection.reset(); });
        EXPECT_TRUE(i % 3 == 0
            || harness.waitUntil(session, [&] { return closed == "QUIC: the connection was closed"; }));
        harness.runOn(session, [&] { channel.reset(); }); // in a race with what home still does for it
    }
    harness.runOn(home, [&] {
        hosts.clear();
        listener.reset();
    });
}
