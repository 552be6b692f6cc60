#include "PelorinRendezvous/Cluster/NatsBroker.h"

#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/NatsServer.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <gmock/gmock.h>

using namespace pelorin;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// One node's end of a real broker, and what it heard.
struct End {
    End(PoolHarness& newHarness, const std::string& url, const std::string& trustFile = {})
        : harness(newHarness),
          queue(harness.makeQueue())
    {
        harness.runOn(queue, [&] {
            broker = NatsBroker::create(queue, {.urls = {url}, .credentialsFile = {}, .trustFile = trustFile})
                         .value();
            broker->onState = [this](bool nowInReach) { states.push_back(nowInReach); };
            broker->onMessage = [this](const Broker::Message& it) {
                texts.push_back(it.text);
                replies.push_back(it.replyTo);
            };
            broker->onNobody = [this](const std::string& replyTo) { nobody.push_back(replyTo); };
        });
    }
    ~End()
    {
        harness.runOn(queue, [this] { broker.reset(); });
    }
    bool waitUntil(const std::function<bool()>& condition) { return harness.waitUntil(queue, condition); }
    bool isReached()
    {
        return waitUntil([this] { return !states.empty() && states.back(); });
    }
    void subscribe(const std::string& subject)
    {
        harness.runOn(queue, [&] { broker->subscribe(subject); });
    }
    bool publish(const std::string& subject, const std::string& text, const std::string& replyTo = {})
    {
        bool isTaken = false;
        harness.runOn(queue, [&] { isTaken = broker->publish(subject, text, replyTo); });
        return isTaken;
    }
    // What was subscribed to is known to the broker once it answers what was asked after it.
    bool isKnown()
    {
        subscribe("sync.self");
        const auto before = nobody.size();
        publish("sync.nobody", "", "sync.self");
        return waitUntil([&] { return nobody.size() > before; });
    }

    PoolHarness& harness;
    QueueRef queue;
    std::unique_ptr<NatsBroker> broker;
    std::vector<bool> states;
    std::vector<std::string> texts, replies, nobody;
};

TEST(NatsBroker, carriesMessagesInOrderAndSaysWhereNobodyIs)
{
    lab::NatsServer server;
    PoolHarness harness;
    End first(harness, server.url()), second(harness, server.url());
    ASSERT_TRUE(first.isReached() && second.isReached());
    second.subscribe("node.b.>");
    first.subscribe("node.a.>");
    ASSERT_TRUE(first.isKnown() && second.isKnown());
    std::vector<std::string> sent;
    for (int i = 0; i < 500; ++i) {
        sent.push_back(std::to_string(i) + std::string("\0\n列", 5));
        EXPECT_TRUE(first.publish("node.b.x", sent.back(), "node.a.y"));
    }
    EXPECT_TRUE(second.waitUntil([&] { return second.texts.size() == sent.size(); }));
    EXPECT_EQ(second.texts, sent);
    EXPECT_EQ(second.replies.front(), "node.a.y");

    first.nobody.clear();
    first.publish("node.c.x", "open", "node.a.z");
    EXPECT_TRUE(first.waitUntil([&] { return !first.nobody.empty(); }));
    EXPECT_THAT(first.nobody, ElementsAre("node.a.z"));
    // What nobody subscribes to any more is nowhere again; nobody hears himself.
    harness.runOn(second.queue, [&] { second.broker->unsubscribe("node.b.>"); });
    ASSERT_TRUE(second.isKnown());
    first.publish("node.b.x", "open", "node.a.w");
    EXPECT_TRUE(first.waitUntil([&] { return first.nobody.size() == 2; }));
    EXPECT_THAT(first.texts, IsEmpty());
}

TEST(NatsBroker, findsABrokerThatComesLateAndAgainWhenItCameBack)
{
    lab::NatsServer server;
    server.kill();
    PoolHarness harness;
    End first(harness, server.url()), second(harness, server.url());
    second.subscribe("host.b");
    EXPECT_FALSE(first.publish("host.b", "too early"));
    server.startAgain();
    ASSERT_TRUE(first.isReached() && second.isReached());
    ASSERT_TRUE(second.isKnown());
    EXPECT_TRUE(first.publish("host.b", "one"));
    EXPECT_TRUE(second.waitUntil([&] { return second.texts.size() == 1; }));

    server.kill();
    ASSERT_TRUE(first.waitUntil([&] { return !first.states.back(); }));
    ASSERT_TRUE(second.waitUntil([&] { return !second.states.back(); }));
    EXPECT_FALSE(first.publish("host.b", "too late"));
    second.subscribe("host.c"); // while it is away
    server.startAgain();
    ASSERT_TRUE(first.isReached() && second.isReached());
    ASSERT_TRUE(second.isKnown());
    EXPECT_TRUE(first.publish("host.b", "two"));
    EXPECT_TRUE(first.publish("host.c", "three"));
    EXPECT_TRUE(second.waitUntil([&] { return second.texts.size() == 3; }));
    EXPECT_THAT(second.texts, ElementsAre("one", "two", "three"));
}

TEST(NatsBroker, goesAwayAtAnyMoment)
{
    lab::NatsServer server;
    PoolHarness harness;
    End sender(harness, server.url());
    ASSERT_TRUE(sender.isReached());
    for (int round = 0; round < 5; ++round) {
        End end(harness, server.url());
        end.subscribe("host.b");
        if (round % 2 == 0) end.isReached();
        for (int i = 0; i < 200; ++i) sender.publish("host.b", "text");
    }
    server.kill();
    const End unreached(harness, server.url());
}

TEST(NatsBroker, staysOutWhereItIsRefused)
{
    lab::NatsServer server({"--user", "node", "--pass", "right"});
    PoolHarness harness;
    End stranger(harness, server.url("node:wrong")), known(harness, server.url("node:right"));
    EXPECT_TRUE(known.isReached());
    EXPECT_FALSE(stranger.publish("host.b", "text"));
    EXPECT_THAT(stranger.states, IsEmpty());
    EXPECT_FALSE(NatsBroker::create(
        stranger.queue, {.urls = {server.url()}, .credentialsFile = {}, .trustFile = "/nonexistent"}));
}

TEST(NatsBroker, speaksTLSWithWhomItTrustsAlone)
{
    const lab::TemporaryFolder folder;
    const auto file = [&](const char* name) { return (folder.path() / name).string(); };
    lab::outputOf({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-subj", "/CN=broker.example", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
        file("key"), "-out", file("certificate")});
    lab::NatsServer server({"--tls", "--tlscert", file("certificate"), "--tlskey", file("key")});
    PoolHarness harness;
    End trusting(harness, server.url({}, "tls"), file("certificate")),
        doubting(harness, server.url({}, "tls")), plain(harness, server.url());
    EXPECT_TRUE(trusting.isReached());
    EXPECT_TRUE(trusting.isKnown());
    for (End* const end : {&doubting, &plain}) EXPECT_FALSE(end->publish("host.b", "text"));
    EXPECT_TRUE(lab::eventually([&] { return server.log().contains("TLS handshake error"); }));
    EXPECT_THAT(doubting.states, IsEmpty());
    EXPECT_THAT(plain.states, IsEmpty());
}

} // namespace
