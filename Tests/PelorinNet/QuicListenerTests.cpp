// What strangers send to a listener, and that those who are let in do not feel it.
#include "Tests/PelorinNet/QuicPeers.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <random>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

// Plain datagrams to a listener, and what it answers.
class Stranger {
public:
    Stranger(const QueueRef& queue, const SocketAddress& newTo)
        : to(newTo),
          socket(UDPSocket::open("127.0.0.1", 0, queue).value())
    {
        socket->onReceive = [this](ByteView datagram, const SocketAddress&) {
            answers.emplace_back(datagram.begin(), datagram.end());
        };
    }
    void send(ByteView datagram) { socket->send(datagram, to); }

    std::vector<Bytes> answers;

private:
    const SocketAddress to;
    const std::unique_ptr<UDPSocket> socket;
};

double heapKiB()
{
    return double(::mallinfo2().uordblks) / 1024;
}

class QuicListeners : public QuicTest {
protected:
    // The datagrams of a whole connection, as they went to the listener.
    std::vector<Bytes> recordConnection()
    {
        std::vector<Bytes> recorded;
        listen();
        wire.emplace(wireQueue, listenerAddress());
        wire->quality.delay = 5ms;
        wire->tap = [&](const Bytes& datagram, DatagramWire::Way way) {
            if (way == DatagramWire::Way::toTarget) recorded.push_back(datagram);
        };
        connect(wire->address(), phoneParameters());
        phone.open().channel->send(Bytes(100));
        queues.advance(1s);
        EXPECT_EQ(hosts.size(), 1u);
        wire->tap = nullptr;
        return recorded;
    }
    // A first datagram of a phone that says no more.
    Bytes firstWord()
    {
        Bytes word;
        DatagramWire deaf(wireQueue, listenerAddress());
        deaf.tap = [&](Bytes& datagram, auto) { word = std::exchange(datagram, {}); };
        const auto connection = PelorinQUIC::connect(phoneQueue, deaf.address(), phoneParameters()).value();
        queues.runReady();
        return word;
    }
    bool stillCarries()
    {
        auto& received = host().streams.at(0)->received;
        received.clear();
        phoneStream().send(Bytes(50'000));
        return advanceUntil([&] { return received.size() == 50'000; });
    }
};

} // namespace

TEST_F(QuicListeners, takeNothingFromChangedDatagramsOfARealConnection)
{
    const auto recorded = recordConnection();
    ASSERT_GE(recorded.size(), 3u);
    Stranger stranger(wireQueue, listenerAddress());
    std::minstd_rand random{3};
    for (const Bytes& whole : recorded) {
        for (std::size_t i = 0; i < whole.size(); i += i < 60 ? 1 : 17) {
            Bytes changed = whole;
            changed[i] ^= std::uint8_t(1 << random() % 8);
            stranger.send(changed);
            wire->send(DatagramWire::Way::toTarget, changed); // as if on the real one's path
            changed = whole;
            changed.resize(i);
            stranger.send(changed);
            if (i % 8 == 0) queues.runReady();
        }
        stranger.send(whole); // once more, from elsewhere
        queues.advance(100ms);
    }
    queues.advance(12s);
    EXPECT_EQ(hosts.size(), 1u) << "nobody else got in";
    EXPECT_FALSE(phone.closed);
    EXPECT_FALSE(host().closed);
    EXPECT_TRUE(stillCarries());
}

TEST_F(QuicListeners, stayAsTheyAreUnderAFloodOfNonsense)
{
    recordConnection();
    const Bytes word = firstWord();
    Stranger stranger(wireQueue, listenerAddress());
    std::minstd_rand random{5};
    const auto flood = [&](int count) {
        for (int i = 0; i < count; ++i) {
            Bytes datagram = word;
            if (i % 2) datagram.assign(random() % 1400, 0);
            for (std::size_t at = i % 2 ? 0 : 6; at < std::min<std::size_t>(datagram.size(), 40); ++at)
                datagram[at] = std::uint8_t(random());
            if (i % 2 == 0) datagram[5] = 8; // an ID that nobody's keys fit
            stranger.send(datagram);
            if (i % 64 == 0) queues.runReady();
        }
        queues.advance(11s);
    };
    flood(2000); // what grows once has grown
    const double before = heapKiB();
    stranger.answers.clear();
    flood(20'000);
    EXPECT_LT(stranger.answers.size(), 200u) << "it answers a few a second";
    stranger.answers.clear();
    EXPECT_LT(heapKiB() - before, 64);
    EXPECT_EQ(hosts.size(), 1u);
    EXPECT_TRUE(stillCarries());
}

TEST_F(QuicListeners, holdOnlySoManyHandshakesThatGoNowhere)
{
    listen();
    std::vector<std::unique_ptr<Stranger>> strangers;
    for (int i = 0; i < 10; ++i)
        strangers.push_back(std::make_unique<Stranger>(wireQueue, listenerAddress()));
    std::vector<Bytes> words;
    for (int i = 0; i < 200; ++i) words.push_back(firstWord());
    queues.advance(10s); // what the phones held that said them is gone
    const double before = heapKiB();
    for (std::size_t i = 0; i < words.size(); ++i) {
        strangers[i / 3 % strangers.size()]->send(words[i]);
        queues.runReady();
    }
    EXPECT_LT(heapKiB() - before, 64 * 160) << "KiB, for 64 of them";
    std::size_t answered = 0;
    for (const auto& stranger : strangers) answered += stranger->answers.size();
    EXPECT_GT(answered, 0u);

    EXPECT_LE(answered, 64u * 8);

    // Those of one source are no more than an eighth of all, so that it takes many to shut a phone out. And
    // when their time is over, everybody is heard again.
    queues.advance(11s);
    for (int i = 0; i < 50; ++i) strangers[0]->send(words[std::size_t(i)]);
    strangers[1]->answers.clear();
    connect(listenerAddress(), phoneParameters());
    queues.runReady();
    EXPECT_EQ(phone.ready, 1);
    ASSERT_EQ(hosts.size(), 1u);
    strangers[1]->send(firstWord());
    queues.runReady();
    EXPECT_FALSE(strangers[1]->answers.empty());
}

TEST_F(QuicListeners, answerEachStrangerWithLessThanItSent)
{
    listen();
    const struct {
        const char* name;
        Bytes datagram;
        std::size_t answers;
    } rows[] = {
        {"empty", {}, 0},
        {"one byte", {0x40}, 0},
        {"an unknown connection", Bytes(60, 0x41), 1},
        {"and the smallest of it", Bytes(22, 0x41), 1},
        {"too small to be one", Bytes(21, 0x41), 0},
        {"another version",
            [] {
                Bytes bytes(1200, 0);
                bytes[0] = 0xC0;
                bytes[1] = 0x1a;
                bytes[5] = 8;
                bytes[14] = 8;
                return bytes;
            }(),
            1},
        {"another version, small",
            [] {
                Bytes bytes(100, 0);
                bytes[0] = 0xC0;
                bytes[1] = 0x1a;
                return bytes;
            }(),
            0},
        {"a list of versions", Bytes{0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0},
        {"a long ID",
            [] {
                Bytes bytes(1200, 0);
                bytes[0] = 0xC0;
                bytes[4] = 1;
                bytes[5] = 255;
                return bytes;
            }(),
            0},
    };
    for (const auto& [name, datagram, answers] : rows) {
        Stranger stranger(wireQueue, listenerAddress());
        stranger.send(datagram);
        queues.runReady();
        EXPECT_EQ(stranger.answers.size(), answers) << name;
        for (const auto& answer : stranger.answers) EXPECT_LT(answer.size(), datagram.size()) << name;
    }
    Stranger stranger(wireQueue, listenerAddress());
    for (int i = 0; i < 1000; ++i) stranger.send(Bytes(60, 0x41));
    queues.runReady();
    EXPECT_LE(stranger.answers.size(), 64u);
    queues.advance(1s);
    stranger.answers.clear();
    stranger.send(Bytes(60, 0x41));
    queues.runReady();
    EXPECT_EQ(stranger.answers.size(), 1u);
}
