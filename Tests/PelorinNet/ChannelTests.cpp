#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "Tests/PelorinNet/QueueHarness.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <algorithm>
#include <ranges>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

// Both ends of one connection, each on a queue of its own.
struct TcpEnds {
    explicit TcpEnds(PoolHarness& harness, const QueueRef& near)
    {
        harness.runOn(near, [&] {
            listener = TcpListener::listen(harness.pool, near, "127.0.0.1", 0).value();
            listener->onConnection = [this](auto channel) { second = std::move(channel); };
            connecting = connectTcp(harness.pool, near, "127.0.0.1", listener->port(), 5s,
                [this](auto channel) { first = std::move(channel).value(); });
        });
        EXPECT_TRUE(harness.waitUntil(near, [&] { return first && second; }));
        harness.runOn(near, [&] {
            connecting.cancel();
            listener.reset();
        });
    }
    std::unique_ptr<TcpListener> listener;
    Subscription connecting;
    std::unique_ptr<Channel> first, second;
};

struct LoopbackEnds {
    explicit LoopbackEnds(PoolHarness&, const QueueRef&)
    {
        auto pair = LoopbackPair::make({});
        first = std::move(pair.first);
        second = std::move(pair.second);
    }
    std::unique_ptr<Channel> first, second;
};

// The same ends with TLS between them.
template <class Ends>
struct TlsOver : Ends {
    explicit TlsOver(PoolHarness& harness, const QueueRef& near) : Ends(harness, near)
    {
        const auto key = PelorinTLS::randomKey("dev-0123456789abcdef");
        this->first = PelorinTLS::clientChannel(std::move(this->first), key);
        this->second = PelorinTLS::serverChannel(std::move(this->second), PelorinTLS::parameters({key}));
    }
};

// Two ends of one QUIC stream, whose connections live on a third queue.
struct QuicEnds {
    explicit QuicEnds(PoolHarness& newHarness, const QueueRef&) : harness(&newHarness)
    {
        const auto host = makeQuicIdentity("host"), phone = makeQuicIdentity("phone");
        harness->runOn(home, [&] {
            const auto acceptAll = [](const Bytes&) { return true; };
            listener = PelorinQUIC::Listener::listen(
                home, "127.0.0.1", 0, PelorinQUIC::parameters(harness->pool, *host, true, acceptAll))
                           .value();
            listener->onConnection = [this](auto connection) {
                server = std::move(connection);
                server->onStream = [this](auto channel) { second = std::move(channel); };
            };
            client = PelorinQUIC::connect(home, loopbackAddress(listener->port()),
                PelorinQUIC::parameters(harness->pool, *phone, false, acceptAll))
                         .value();
            first = client->openStream();
        });
        EXPECT_TRUE(harness->waitUntil(home, [&] { return second != nullptr; }));
    }
    ~QuicEnds()
    {
        harness->runOn(home, [&] {
            client.reset();
            server.reset();
            listener.reset();
        });
    }
    PoolHarness* const harness;
    const QueueRef home = harness->makeQueue("quic");
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::unique_ptr<PelorinQUIC::Connection> client, server;
    std::unique_ptr<Channel> first, second;
};

template <class Ends>
class AnyChannel : public testing::Test {
protected:
    void TearDown() override
    {
        harness.runOn(near, [&] { ends.first.reset(); });
        harness.runOn(far, [&] { ends.second.reset(); });
    }

    void onNear(Task task) { harness.runOn(near, std::move(task)); }
    void onFar(Task task) { harness.runOn(far, std::move(task)); }
    void startSecond()
    {
        onFar([&] {
            ends.second->onBytes
                = [&](ByteView bytes) { received.insert(received.end(), bytes.begin(), bytes.end()); };
            ends.second->onClosed = [&](auto error) { closed = error ? error->description : "in order"; };
            ends.second->start(far);
        });
    }
    bool waitFar(const std::function<bool()>& condition) { return harness.waitUntil(far, condition); }
    bool waitNear(const std::function<bool()>& condition) { return harness.waitUntil(near, condition); }

    PoolHarness harness;
    const QueueRef near = harness.makeQueue("near");
    const QueueRef far = harness.makeQueue("far");
    Ends ends{harness, near};
    Bytes received; // by the second end, on far
    std::optional<std::string> closed; // how the second end was, on far
};

using Kinds = testing::Types<TcpEnds, LoopbackEnds, TlsOver<TcpEnds>, TlsOver<LoopbackEnds>, QuicEnds,
    TlsOver<QuicEnds>>;
TYPED_TEST_SUITE(AnyChannel, Kinds);

// Bytes that tell their place, so that a lost, doubled or swapped piece shows.
Bytes numbered(std::size_t size, std::size_t from = 0)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = std::uint8_t((from + i) * 2654435761u >> 13);
    return bytes;
}

} // namespace

TYPED_TEST(AnyChannel, carriesSendsOfEverySizeInOrderAndCompletesEachOnce)
{
    const std::vector<std::vector<std::size_t>> sends{{1}, {}, {0}, {5, 100'000}, {0, 0, 3}, {70'000, 0},
        {1, 2, 3, 4}, {2'000'000}, std::vector<std::size_t>(300, 7), {64}};
    std::size_t total = 0;
    std::vector<std::size_t> completed;
    this->startSecond();
    this->onNear([&] {
        this->ends.first->start(this->near);
        for (std::size_t i = 0; i < sends.size(); ++i) {
            std::vector<Bytes> parts;
            for (const std::size_t size : sends[i]) {
                parts.push_back(numbered(size, total));
                total += size;
            }
            this->ends.first->send(std::move(parts), [&, i] { completed.push_back(i); });
        }
        EXPECT_TRUE(completed.empty()) << "send never calls back inside";
    });
    ASSERT_TRUE(this->waitNear([&] { return completed.size() == sends.size(); }));
    ASSERT_TRUE(this->waitFar([&] { return this->received.size() == total; }));
    this->onFar([&] { EXPECT_EQ(this->received, numbered(total)); });
    this->onNear([&] {
        EXPECT_TRUE(std::ranges::equal(completed, std::views::iota(std::size_t{0}, sends.size())));
        EXPECT_EQ(this->ends.first->unsentBytes(), 0u);
    });
}

TYPED_TEST(AnyChannel, finishDeliversEverythingThoughTheChannelGoesAndThePeerKeepsTalking)
{
    constexpr std::size_t size
        = 1'000'000; // several times what the kernel takes at once, quick within a second
    bool called = false;
    this->startSecond();
    this->onFar([&] { this->ends.second->send(Bytes(100'000)); }); // never read by the first end's owner
    this->onNear([&] {
        auto& first = this->ends.first;
        first->start(this->near);
        first->onBytes = [&](ByteView) { called = true; };
        first->onClosed = [&](auto) { called = true; };
        first->send(numbered(size), [&] { called = true; });
        first->finish();
        first->send(Bytes(10));
        first.reset();
    });
    ASSERT_TRUE(this->waitFar([&] { return this->closed.has_value(); }));
    this->onFar([&] {
        EXPECT_EQ(this->closed, "in order");
        EXPECT_EQ(this->received.size(), size);
        EXPECT_EQ(this->received, numbered(size));
    });
    this->onNear([&] { EXPECT_FALSE(called); });
}

TYPED_TEST(AnyChannel, bothEndsMayFinishAtOnceWithoutLosingEachOthersLastWords)
{
    constexpr std::size_t size = 200'000;
    this->startSecond();
    this->onNear([&] {
        this->ends.first->start(this->near);
        this->ends.first->send(numbered(size));
        this->ends.first->finish();
    });
    ASSERT_TRUE(this->waitFar([&] { return this->received.size() == size; }));
    this->onFar([&] {
        this->ends.second->send(Bytes(1000));
        this->ends.second->finish();
        this->ends.second->finish();
    });
}

TYPED_TEST(AnyChannel, survivesDestructionInEachOfItsCallbacks)
{
    for (const std::string_view callback : {"bytes", "sent", "closed", "finish in bytes", "replaced"}) {
        SCOPED_TRACE(callback);
        TypeParam ends{this->harness, this->near};
        bool happened = false, peerClosed = false;
        const auto captured = std::make_shared<std::string>("captured");
        this->onFar([&] {
            ends.second->onClosed = [&](auto) { peerClosed = true; };
            ends.second->start(this->far);
            ends.second->send(Bytes(300'000, 7)); // more than one read
        });
        this->onNear([&] {
            auto& first = ends.first;
            const auto destroy = [&happened, &first, captured] {
                first.reset();
                happened = *captured == "captured"; // the closure outlives its own call
            };
            if (callback == "bytes")
                first->onBytes = [destroy](ByteView bytes) {
                    destroy();
                    EXPECT_EQ(bytes[bytes.size() - 1], 7); // and so do the bytes
                };
            if (callback == "finish in bytes")
                first->onBytes = [&happened, &first, captured](ByteView) {
                    first->finish();
                    happened = *captured == "captured";
                };
            if (callback == "replaced")
                first->onBytes = [destroy, &first, captured](ByteView) {
                    first->onBytes = [destroy](ByteView) { destroy(); };
                    EXPECT_EQ(*captured, "captured");
                };
            if (callback == "closed") first->onClosed = [destroy](auto) { destroy(); };
            first->start(this->near);
            for (int i = 0; callback == "sent" && i < 3; ++i) first->send(Bytes(10), destroy);
        });
        if (callback == "closed") this->onFar([&] { ends.second.reset(); });
        EXPECT_TRUE(this->waitNear([&] { return happened; }));
        if (callback != "closed") {
            EXPECT_TRUE(this->waitFar([&] { return peerClosed; }));
        }
        this->onNear([&] { ends.first.reset(); });
        this->onFar([&] { ends.second.reset(); });
    }
}

TYPED_TEST(AnyChannel, neverCompletesASendAfterItClosed)
{
    const auto captured = std::make_shared<int>();
    std::optional<bool> completedBeforeClose;
    bool completed = false;
    this->onNear([&] {
        auto& first = this->ends.first;
        first->start(this->near);
        first->onClosed = [&](auto) { completedBeforeClose = completed; };
        first->send(
            Bytes(30'000'000), [&completed, captured] { completed = true; }); // more than a kernel holds
    });
    this->onFar([&] { this->ends.second.reset(); });
    ASSERT_TRUE(this->waitNear([&] { return completedBeforeClose.has_value(); }));
    this->onNear([&] {
        EXPECT_FALSE(completed);
        this->ends.first->send(Bytes(10), [captured] {});
    });
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(LoopbackPair, holdsSendsBackWhileTheSecondEndPausesAndCutsThemIntoChunks)
{
    ManualQueues queues;
    const QueueRef near = queues.makeQueue("near"), far = queues.makeQueue("far");
    auto pair
        = LoopbackPair::make({.remoteAddress = "100.64.0.9", .pathDescription = "direct", .chunkSize = 4});
    std::vector<std::size_t> chunks;
    int sent = 0;
    pair.second->onBytes = [&](ByteView bytes) { chunks.push_back(bytes.size()); };
    pair.second->start(far);
    pair.first->start(near);
    EXPECT_EQ(pair.second->remoteAddress(), "100.64.0.9");

    pair.pauseSecond(true);
    pair.first->send(Bytes(10), [&] { ++sent; });
    pair.first->send(Bytes(3), [&] { ++sent; });
    queues.advance(10s);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(pair.first->unsentBytes(), 13u);

    pair.pauseSecond(false);
    queues.runReady();
    EXPECT_EQ(chunks, (std::vector<std::size_t>{4, 4, 2, 3}));
    EXPECT_EQ(sent, 2);
    EXPECT_EQ(pair.first->unsentBytes(), 0u);
}
