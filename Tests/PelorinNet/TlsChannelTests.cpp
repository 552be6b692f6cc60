#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Queue/ManualQueues.h"

#include <algorithm>
#include <gmock/gmock.h>

using namespace pelorin;
using namespace std::chrono_literals;
using PelorinTLS::HandshakeFailure;
using PelorinTLS::Key;
using testing::HasSubstr;

namespace {

Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string textOf(ByteView bytes)
{
    return {bytes.begin(), bytes.end()};
}

// Lets a test see, change and count what an end hands to its transport.
class TappedChannel final : public Channel {
public:
    TappedChannel(std::unique_ptr<Channel> newInner, std::function<void(Bytes&)> newTap)
        : inner(std::move(newInner)),
          tap(std::move(newTap))
    {
    }
    void start(QueueRef queue) override
    {
        inner->onBytes = [this](ByteView bytes) { onBytes(bytes); };
        inner->onClosed = [this](auto error) { onClosed(error); };
        inner->start(std::move(queue));
    }
    using Channel::send;
    void send(std::vector<Bytes> parts, Task onSent) override
    {
        Bytes all;
        for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
        if (!all.empty()) tap(all);
        inner->send(std::move(all), std::move(onSent));
    }
    std::size_t unsentBytes() const override { return inner->unsentBytes(); }
    void finish() override { inner->finish(); }
    std::string remoteAddress() const override { return inner->remoteAddress(); }
    std::string pathDescription() const override { return inner->pathDescription(); }

private:
    const std::unique_ptr<Channel> inner;
    const std::function<void(Bytes&)> tap;
};

const Key deviceKey{"dev-0123456789abcdef", SecretBytes(Bytes(32, 0x5A))};
const Key pairingKey{"pair-fedcba9876543210", SecretBytes(Bytes(32, 0xA5))};

struct Options {
    std::vector<Key> serverKeys{deviceKey, pairingKey};
    Key clientKey = deviceKey;
    std::size_t chunkSize = 65536;
    std::function<void(Bytes&)> onServerSend = [](Bytes&) {};
    std::function<void(Bytes&)> onClientSend = [](Bytes&) {};
};

// What one end of a connection has met.
struct End {
    std::unique_ptr<Channel> channel;
    Bytes received;
    std::optional<std::string> closed;
    std::optional<HandshakeFailure> failure;
    std::function<void()> onEnd = [] {};

    void start(const QueueRef& queue)
    {
        channel->onBytes
            = [this](ByteView bytes) { received.insert(received.end(), bytes.begin(), bytes.end()); };
        channel->onClosed = [this](auto error) {
            closed = error ? error->description : "in order";
            failure = PelorinTLS::handshakeFailure(*channel);
            EXPECT_EQ(channel->hasFailedHandshake(), failure.has_value());
            EXPECT_EQ(channel->remoteAddress(), "100.64.0.9") << "asked once more for the log";
            onEnd();
        };
        channel->start(queue);
    }
};

// A server and a client of ours, joined in memory on virtual time. As a phone, the client can stop reading.
struct Connection {
    explicit Connection(ManualQueues& queues, Options options = {})
        : pair(LoopbackPair::make({.remoteAddress = "100.64.0.9", .chunkSize = options.chunkSize})),
          serverQueue(queues.makeQueue("server")),
          clientQueue(queues.makeQueue("client"))
    {
        server.channel = PelorinTLS::serverChannel(
            std::make_unique<TappedChannel>(std::move(pair.first), std::move(options.onServerSend)),
            PelorinTLS::parameters(options.serverKeys));
        client.channel = PelorinTLS::clientChannel(
            std::make_unique<TappedChannel>(std::move(pair.second), std::move(options.onClientSend)),
            std::move(options.clientKey));
    }
    void start()
    {
        server.start(serverQueue);
        client.start(clientQueue);
    }

    LoopbackPair pair;
    QueueRef serverQueue, clientQueue;
    End server, client;
};

class TlsChannels : public testing::Test {
protected:
    // The other end is the test itself, in plain bytes.
    struct Raw {
        std::unique_ptr<Channel> channel;
        Bytes received;
        bool isClosed = false;
    };
    void startRaw(Raw& raw, std::unique_ptr<Channel> channel)
    {
        raw.channel = std::move(channel);
        raw.channel->onBytes
            = [&raw](ByteView bytes) { raw.received.insert(raw.received.end(), bytes.begin(), bytes.end()); };
        raw.channel->onClosed = [&raw](auto) { raw.isClosed = true; };
        raw.channel->start(queues.makeQueue("raw"));
    }
    void startAgainst(Raw& raw, End& end, bool isServer)
    {
        auto [near, far] = join();
        startRaw(raw, std::move(far));
        end.channel = isServer
            ? PelorinTLS::serverChannel(std::move(near), PelorinTLS::parameters({deviceKey}))
            : PelorinTLS::clientChannel(std::move(near), deviceKey);
        end.start(queue);
    }
    std::pair<std::unique_ptr<Channel>, std::unique_ptr<Channel>> join()
    {
        auto pair = LoopbackPair::make({.remoteAddress = "100.64.0.9"});
        return {std::move(pair.first), std::move(pair.second)};
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("end");
};

// The alert in clear that a stream of records ends with: its description, if it is fatal.
std::optional<int> lastAlert(const Bytes& stream)
{
    const Bytes head{0x15, 3, 3, 0, 2, 2};
    if (stream.size() < 7 || !std::ranges::equal(ByteView(stream).last(7).first(6), head)) return {};
    return stream.back();
}

std::size_t countRecords(ByteView stream)
{
    std::size_t count = 0;
    for (std::size_t at = 0; at + 5 <= stream.size(); ++count)
        at += 5 + std::size_t(stream[at + 3] << 8 | stream[at + 4]);
    return count;
}

} // namespace

TEST_F(TlsChannels, letInWhoProvesAListedKeyAndSayWhose)
{
    for (const auto& key : {deviceKey, pairingKey}) {
        Bytes wire;
        const auto record = [&](Bytes& bytes) { wire.insert(wire.end(), bytes.begin(), bytes.end()); };
        Connection connection(queues, {.clientKey = key, .onServerSend = record, .onClientSend = record});
        connection.start();
        EXPECT_EQ(connection.server.channel->peerIdentity(), "");
        connection.server.channel->send(bytesOf("from the host"));
        connection.client.channel->send(bytesOf("from the phone"));
        queues.runReady();
        EXPECT_EQ(textOf(connection.client.received), "from the host");
        EXPECT_EQ(textOf(connection.server.received), "from the phone");
        EXPECT_EQ(connection.server.channel->peerIdentity(), key.identity);
        EXPECT_EQ(connection.client.channel->peerIdentity(), key.identity);
        queues.advance(1h); // there is no deadline any more
        EXPECT_FALSE(connection.server.closed || connection.client.closed);
        for (const std::string& secret : {std::string("from the"), textOf(key.secret.view())})
            EXPECT_THAT(textOf(wire), testing::Not(HasSubstr(secret)));
    }
}

TEST_F(TlsChannels, refuseEveryOtherKeyWithTheAlertThatTellsWhy)
{
    const Key wrongSecret{deviceKey.identity, SecretBytes(Bytes(32, 0x5B))};
    const Key shortSecret{deviceKey.identity, SecretBytes(Bytes(31, 0x5A))};
    const Key stranger{"dev-ffffffffffffffff", deviceKey.secret};
    const Key noSecret{deviceKey.identity, {}};
    constexpr int badRecord = 20, unknownIdentity = 115;
    const struct {
        std::vector<Key> serverKeys;
        Key clientKey;
        int alert;
    } cases[] = {
        {{deviceKey}, wrongSecret, badRecord},
        {{deviceKey}, shortSecret, badRecord},
        {{deviceKey}, {deviceKey.identity, pairingKey.secret}, badRecord},
        {{deviceKey, pairingKey}, stranger, unknownIdentity},
        {{deviceKey}, {deviceKey.identity.substr(0, 19), deviceKey.secret}, unknownIdentity},
        {{deviceKey}, {deviceKey.identity + "0", deviceKey.secret}, unknownIdentity},
        {{deviceKey}, {std::string(128, 'i'), deviceKey.secret}, unknownIdentity},
        {{}, deviceKey, unknownIdentity},
        {{noSecret}, deviceKey, unknownIdentity},
        {{noSecret}, {noSecret.identity, SecretBytes(Bytes(1))}, unknownIdentity},
    };
    for (const auto& [serverKeys, clientKey, alert] : cases) {
        SCOPED_TRACE(clientKey.identity + " among " + std::to_string(serverKeys.size()));
        Bytes fromServer;
        Connection connection(
            queues, {.serverKeys = serverKeys, .clientKey = clientKey, .onServerSend = [&](Bytes& bytes) {
                         fromServer.insert(fromServer.end(), bytes.begin(), bytes.end());
                     }});
        connection.start();
        connection.server.channel->send(bytesOf("never"));
        connection.client.channel->send(bytesOf("never"));
        queues.runReady();
        EXPECT_EQ(lastAlert(fromServer), alert);
        for (const End* end : {&connection.server, &connection.client}) {
            EXPECT_THAT(end->closed.value_or(""), testing::StartsWith("TLS handshake failed: "));
            EXPECT_EQ(end->failure, HandshakeFailure::keyRefused);
            EXPECT_EQ(end->channel->peerIdentity(), "");
            EXPECT_TRUE(end->received.empty());
            EXPECT_EQ(end->channel->unsentBytes(), 0u);
        }
    }
}

TEST_F(TlsChannels, carryEverythingThroughCutsAtEveryByte)
{
    Connection connection(queues, {.chunkSize = 1});
    connection.start();
    Bytes numbered(40'000);
    for (std::size_t i = 0; i < numbered.size(); ++i) numbered[i] = std::uint8_t(i * 2654435761u >> 13);
    connection.server.channel->send(numbered);
    connection.client.channel->send(bytesOf("hello"));
    queues.runReady();
    EXPECT_EQ(connection.client.received, numbered);
    EXPECT_EQ(textOf(connection.server.received), "hello");
    connection.client.channel->finish();
    queues.runReady();
    EXPECT_EQ(connection.server.closed, "in order");
}

TEST_F(TlsChannels, makeOneSendOfAFrameInFewRecords)
{
    std::vector<Bytes> sends;
    Connection connection(queues, {.onServerSend = [&](Bytes& bytes) { sends.push_back(bytes); }});
    connection.start();
    queues.runReady();
    sends.clear();
    Bytes expected;
    for (const auto& sizes :
        std::vector<std::vector<std::size_t>>{{22, 100'000}, {16'384, 16'384}, {1, 16'383}, {5, 16'380},
            {0, 7, 0}, {16'383, 2, 40'000, 1}, std::vector<std::size_t>(1000, 3)}) {
        std::vector<Bytes> parts;
        std::size_t total = 0;
        for (const std::size_t size : sizes) {
            parts.emplace_back(size, std::uint8_t(size + total));
            expected.insert(expected.end(), parts.back().begin(), parts.back().end());
            total += size;
        }
        connection.server.channel->send(std::move(parts));
        ASSERT_EQ(sends.size(), 1u);
        EXPECT_EQ(countRecords(sends[0]), (total + 16'383) / 16'384) << total << " bytes";
        sends.clear();
    }
    queues.runReady();
    EXPECT_EQ(connection.client.received, expected);
}

TEST_F(TlsChannels, holdBackLikeTheTransportBelow)
{
    Connection connection(queues);
    connection.start();
    queues.runReady();
    auto& server = *connection.server.channel;
    EXPECT_EQ(server.unsentBytes(), 0u);
    int sent = 0;
    connection.pair.pauseSecond(true);
    for (int i = 0; i < 3; ++i) server.send({Bytes(10), Bytes(50'000)}, [&] { ++sent; });
    queues.advance(10s);
    EXPECT_EQ(sent, 0);
    EXPECT_GE(server.unsentBytes(), 150'030u);
    EXPECT_LE(server.unsentBytes(), 151'000u);
    connection.pair.pauseSecond(false);
    queues.runReady();
    EXPECT_EQ(sent, 3);
    EXPECT_EQ(server.unsentBytes(), 0u);
}

TEST_F(TlsChannels, countWhatWaitsForTheHandshakeAsUnsent)
{
    auto [near, far] = join();
    Raw raw;
    startRaw(raw, std::move(far));
    const auto captured = std::make_shared<int>();
    auto channel = PelorinTLS::serverChannel(std::move(near), PelorinTLS::parameters({deviceKey}));
    channel->start(queue);
    channel->send({Bytes(10), Bytes(20)}, [captured] {});
    channel->send(Bytes(5));
    EXPECT_EQ(channel->unsentBytes(), 35u);
    raw.channel.reset();
    queues.runReady();
    EXPECT_EQ(channel->unsentBytes(), 0u);
    EXPECT_EQ(captured.use_count(), 1);
    channel->send(Bytes(), [captured] {});
    EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(TlsChannels, giveAHandshakeTenSecondsHoweverItDrips)
{
    // Client and server in turn; the other end says nothing, or a byte of a handshake each second.
    for (const bool isServer : {true, false})
        for (const bool drips : {false, true}) {
            Raw raw;
            End end;
            startAgainst(raw, end, isServer);
            const Bytes beginning{0x16, 3, 1, 1, 0, 1, 0, 0, 0xFC, 3, 3};
            for (int second = 0; second < 10; ++second) {
                EXPECT_FALSE(end.closed) << second;
                if (drips) raw.channel->send(Bytes{beginning[second]});
                queues.advance(second < 9 ? 1000ms : 999ms);
            }
            EXPECT_FALSE(end.closed);
            queues.advance(1ms);
            EXPECT_EQ(end.closed, "TLS handshake failed: it took longer than 10 s");
            EXPECT_EQ(end.failure, HandshakeFailure::timedOut);
            EXPECT_TRUE(raw.isClosed);
        }
}

TEST_F(TlsChannels, tellAPeerThatDoesNotSpeakTLS)
{
    for (const bool isServer : {true, false})
        for (const std::string_view words : {"GET / HTTP/1.1\r\n\r\n", "\x01", "\x05\x00\x00\x00\x08",
                 "SSH-2.0-x\r\n", "\x80\x2e\x01\x03\x03\x00\x15", "\xff"}) {
            Raw raw;
            End end;
            startAgainst(raw, end, isServer);
            raw.channel->send(bytesOf(words));
            queues.runReady();
            EXPECT_EQ(end.closed, "TLS handshake failed: the peer does not speak TLS") << words;
            EXPECT_EQ(end.failure, HandshakeFailure::notTLS);
            EXPECT_TRUE(raw.isClosed);
        }
}

TEST_F(TlsChannels, surviveGarbageThatBeginsLikeTLS)
{
    std::uint32_t state = 1;
    for (int i = 0; i < 2000; ++i) {
        Raw raw;
        End end;
        startAgainst(raw, end, i % 2 == 0);
        Bytes garbage{0x16, 3, 3, 0, 60, std::uint8_t(i % 3 + 1), 0, 0, std::uint8_t(56)};
        while (garbage.size() < 65)
            garbage.push_back(std::uint8_t((state = state * 1664525 + 1013904223) >> 24));
        raw.channel->send(garbage);
        raw.channel->send(Bytes(40'000, 0x16));
        queues.runReady();
        queues.advance(10s);
        EXPECT_TRUE(end.failure) << i;
    }
}

TEST_F(TlsChannels, meetAPeerThatVanishesAfterEveryByteOfTheHandshake)
{
    std::size_t limit = 0;
    for (bool isThrough = false; !isThrough; ++limit) {
        std::size_t passed = 0;
        Connection* watched = nullptr;
        Connection connection(queues, {.onClientSend = [&](Bytes& bytes) {
            bytes.resize(std::min(bytes.size(), limit - passed));
            passed += bytes.size();
            if (passed == limit) watched->clientQueue->post([&] { watched->client.channel->finish(); });
        }});
        watched = &connection;
        connection.start();
        queues.runReady();
        isThrough = !connection.server.channel->peerIdentity().empty();
        if (isThrough) break;
        EXPECT_EQ(connection.server.closed, "TLS handshake failed: the peer closed the connection") << limit;
        EXPECT_EQ(connection.server.failure, HandshakeFailure::closed);
    }
    EXPECT_GT(limit, 200u) << "a client's half of a handshake is longer";
}

TEST_F(TlsChannels, neverTakeAHandshakeInWhichAByteWasChanged)
{
    for (const bool fromClient : {true, false}) {
        std::vector<std::size_t> survived;
        bool isBeyond = false;
        for (std::size_t position = 0; !isBeyond; ++position) {
            std::size_t passed = 0;
            isBeyond = true;
            const auto change = [&](Bytes& bytes) {
                if (passed <= position && position < passed + bytes.size()) {
                    bytes[position - passed] ^= 0x40;
                    isBeyond = false;
                }
                passed += bytes.size();
            };
            Options options;
            (fromClient ? options.onClientSend : options.onServerSend) = change;
            Connection connection(queues, std::move(options));
            connection.start();
            queues.runReady();
            if (!isBeyond && !connection.server.closed) queues.advance(10s); // it waits for more
            const bool isTaken = !connection.server.failure && !connection.client.failure;
            if (isTaken && !isBeyond) survived.push_back(position);
        }
        // Nobody looks at the version of the first record (RFC 5246, appendix E.1), and no secret hangs on
        // it.
        EXPECT_THAT(survived, testing::Each(testing::AllOf(testing::Ge(1u), testing::Le(2u))));
    }
}

TEST_F(TlsChannels, neverDeliverARecordInWhichAByteWasChanged)
{
    for (std::size_t position = 0; position < 5 + 100 + 16; ++position) {
        bool isSecured = false;
        Connection connection(queues, {.onClientSend = [&](Bytes& bytes) {
            if (std::exchange(isSecured, false)) bytes.at(position) ^= 0x01;
        }});
        connection.start();
        queues.runReady();
        isSecured = true;
        connection.client.channel->send(Bytes(100, 'x'));
        connection.client.channel->send(Bytes(20'000, 'y')); // in case that a longer record is waited for
        queues.runReady();
        EXPECT_TRUE(connection.server.received.empty()) << position;
        EXPECT_THAT(connection.server.closed.value_or(""), testing::StartsWith("TLS failed: ")) << position;
        EXPECT_FALSE(connection.server.failure) << "the handshake was fine";
        EXPECT_TRUE(connection.client.closed) << "the alert arrived";
    }
}

TEST_F(TlsChannels, takeACutConnectionForOneThatEnded)
{
    Connection connection(queues, {.onClientSend = [](Bytes& bytes) {
        if (bytes.front() == 0x15) bytes.clear(); // no close_notify comes through
    }});
    connection.start();
    connection.client.channel->send(bytesOf("last words"));
    queues.runReady();
    connection.client.channel->finish();
    queues.runReady();
    EXPECT_EQ(textOf(connection.server.received), "last words");
    EXPECT_EQ(connection.server.closed, "in order");
    EXPECT_FALSE(connection.server.failure);
}

TEST_F(TlsChannels, sayWhatTheyWereGivenThoughToldToFinishDuringTheHandshake)
{
    Connection connection(queues);
    connection.start();
    connection.server.channel->send(bytesOf("not you"), [] { ADD_FAILURE() << "callbacks stop at once"; });
    connection.server.channel->finish();
    connection.server.channel.reset();
    queues.runReady();
    EXPECT_EQ(textOf(connection.client.received), "not you");
    EXPECT_EQ(connection.client.closed, "in order");
}

TEST_F(TlsChannels, giveAFinishASecondWhenThePeerDoesNotShakeHands)
{
    const auto captured = std::make_shared<int>();
    const auto finishUnanswered = [&](Raw& raw, QueueMaker& maker) {
        auto [near, far] = join();
        startRaw(raw, std::move(far));
        auto channel = PelorinTLS::serverChannel(
            std::make_unique<TappedChannel>(std::move(near), [captured](Bytes&) {}),
            PelorinTLS::parameters({deviceKey}));
        channel->start(maker.makeQueue("end"));
        channel->send(bytesOf("not you"), [captured] {});
        channel->finish();
    };
    Raw raw;
    finishUnanswered(raw, queues);
    queues.advance(999ms);
    EXPECT_FALSE(raw.isClosed);
    queues.advance(1ms);
    EXPECT_TRUE(raw.isClosed);
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_TRUE(raw.received.empty());

    auto others = std::make_unique<ManualQueues>();
    Raw another;
    finishUnanswered(another, *others);
    EXPECT_GT(captured.use_count(), 1);
    others.reset();
    EXPECT_EQ(captured.use_count(), 1) << "goes with its queues";
}

TEST_F(TlsChannels, mayBeDestroyedBySayingThatTheyClosed)
{
    const Key wrong{deviceKey.identity, pairingKey.secret};
    for (const std::string_view end :
        {"wrong key", "silence", "plain text", "gone", "in order", "broken record"}) {
        SCOPED_TRACE(end);
        bool breaks = false;
        Connection connection(
            queues, {.clientKey = end == "wrong key" ? wrong : deviceKey, .onClientSend = [&](Bytes& bytes) {
                         if (end == "silence") bytes.clear();
                         if (end == "plain text") bytes = bytesOf("hello");
                         if (breaks) bytes.back() ^= 1;
                     }});
        for (End* each : {&connection.server, &connection.client})
            each->onEnd = [each, captured = std::make_shared<int>(7)] {
                each->channel.reset();
                EXPECT_EQ(*captured, 7);
            };
        connection.start();
        if (end == "gone") connection.client.channel.reset();
        queues.runReady();
        if (end == "in order") connection.client.channel->finish();
        if (end == "broken record") {
            breaks = true;
            connection.client.channel->send(Bytes(10));
        }
        queues.advance(10s);
        EXPECT_TRUE(connection.server.closed);
    }
}

TEST_F(TlsChannels, mayBelongToATaskThatTheyDrop)
{
    for (const bool isSecured : {false, true}) {
        auto [near, far] = join();
        const auto captured = std::make_shared<int>();
        auto server = PelorinTLS::serverChannel(std::move(near), PelorinTLS::parameters({deviceKey}));
        server->start(queue);
        auto holder = std::make_shared<std::unique_ptr<Channel>>(
            PelorinTLS::clientChannel(std::move(far), deviceKey));
        Channel& client = **holder;
        client.onClosed = [captured](auto) {};
        client.start(queues.makeQueue("client"));
        if (isSecured) queues.runReady();
        client.send(Bytes(1'000'000), [holder, captured] {});
        holder.reset();
        server.reset(); // takes the connection with it
        queues.runReady();
        EXPECT_EQ(captured.use_count(), 1);
    }
}

TEST_F(TlsChannels, reconnectAThousandTimesOnOneListOfKeys)
{
    const auto parameters = PelorinTLS::parameters({deviceKey});
    for (int i = 0; i < 1000; ++i) {
        auto [near, far] = join();
        auto server = PelorinTLS::serverChannel(std::move(near), parameters);
        auto client = PelorinTLS::clientChannel(std::move(far), deviceKey);
        int closed = 0;
        server->onBytes = [&](ByteView) { server->finish(); };
        client->onClosed = [&](auto error) { closed += error ? 0 : 1; };
        server->start(queue);
        client->start(queue);
        client->send(Bytes(1));
        queues.runReady();
        ASSERT_EQ(closed, 1) << i;
    }
    EXPECT_EQ(parameters.use_count(), 1) << "no connection stays behind";
}
