#include "PelorinNet/Rendezvous/PhoneConnector.h"

#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/PairingProof.h"
#include "Tests/Peers/ScriptedService.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;
using Kind = PhoneConnector::Failure::Kind;

std::unique_ptr<PathSetup> pathWithoutNames(QueueRef queue, PathServers servers)
{
    const auto unknown = [](const PathServers::Server&, const QueueRef&, const auto& done) { done({}); };
    return std::make_unique<PathSetup>(std::move(queue), std::move(servers), unknown, PathSetup::Switches{});
}

json toJSON(const PathDescription& description)
{
    json candidates = json::array();
    for (const Candidate& each : description.candidates) candidates.push_back(each.json());
    return {{"ufrag", description.ufrag}, {"password", description.password},
        {"candidates", std::move(candidates)}};
}

// A phone whose service is played by the test, and a host with a path and QUIC of its own.
class PhoneConnectorTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (hostCandidates(1).empty()) GTEST_SKIP() << "no network interface here but loopback";
    }

    void start(std::optional<PhoneConnector::Pairing> pairing = {})
    {
        failure.reset();
        channel.reset();
        connector = std::make_unique<PhoneConnector>(
            queue, PhoneConnector::Means{queues, *phone, service.maker(), pathWithoutNames}, place, pairing);
        connector->onDone = [this](Result<PhoneConnector::Reached, PhoneConnector::Failure> result) {
            if (result) {
                channel = std::make_unique<QuicEndOfStream>(std::move(result->channel), queue);
                hostName = result->hostName;
            } else {
                failure = result.error();
                connector.reset(); // as an owner may
            }
        };
        connector->start();
        queues.runReady();
    }
    void say(json message)
    {
        service.line().say(std::move(message));
        queues.runReady();
    }
    void greet() { say({{"type", "hello"}, {"online", true}}); }
    // The request that the phone has sent, as the host reads it.
    ConnectRequest request()
    {
        const auto sent = service.line().takeReceived();
        require(sent.size() == 1 && sent[0]["type"] == "connect", "one request");
        auto parsed = ConnectRequest::parse(sent[0]["request"]);
        require(parsed.has_value(), "a request that a host understands");
        return std::move(*parsed);
    }
    // What the host does with a request that it grants.
    void grant(const ConnectRequest& request, json more = json::object())
    {
        hostPath = pathWithoutNames(hostQueue, {});
        require(hostPath->open().has_value(), "the host's sockets");
        hostListener = PelorinQUIC::Listener::listen(
            hostQueue, "127.0.0.1", 0, PelorinQUIC::parameters(queues, *host, true, [&](const Bytes& shown) {
                return shown == phone->fingerprint();
            })).value();
        hostListener->onConnection = [this](auto made) { hostEnd.take(std::move(made), hostQueue); };
        hostPath->setQuicEndpoint(loopbackAddress(hostListener->port()));
        more.update(toJSON(hostPath->local()));
        say({{"type", "accept"}, {"response", std::move(more)}});
        hostPath->start(request.remote, {},
            {[this](json data) { say({{"type", "signal"}, {"data", std::move(data)}}); },
                std::make_shared<SignalInbox>()},
            [](const auto&) {});
    }
    void reach()
    {
        start();
        greet();
        grant(request());
        ASSERT_TRUE(advanceUntil([&] { return channel || failure; }));
        ASSERT_TRUE(channel) << failure->text;
    }
    bool advanceUntil(const std::function<bool()>& condition, Duration most = 60s)
    {
        const auto end = queues.now() + most;
        for (queues.runReady(); !condition() && queues.now() < end;) queues.advance(5ms);
        return condition();
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("phone"), hostQueue = queues.makeQueue("host");
    const std::unique_ptr<SoftwareIdentity> phone = makeQuicIdentity("phone"),
                                            host = makeQuicIdentity("host");
    RemotePlace place{
        KeyFingerprint::hostID(host->publicKey()), host->fingerprint(), "https://rendezvous.example/base"};
    ScriptedService service;
    std::unique_ptr<PathSetup> hostPath;
    std::unique_ptr<PelorinQUIC::Listener> hostListener;
    QuicEndOfConnection hostEnd;
    std::unique_ptr<PhoneConnector> connector;
    std::optional<PhoneConnector::Failure> failure;
    std::unique_ptr<QuicEndOfStream> channel;
    std::string hostName;
};

TEST_F(PhoneConnectorTest, reachesTheHostAndSpeaksToIt)
{
    reach();
    EXPECT_EQ(service.line().url, "wss://rendezvous.example/base/v1/connect/" + place.hostID);
    EXPECT_THAT(channel->channel->pathDescription(), HasSubstr("direct "));
    const auto& steps = connector->steps();
    EXPECT_TRUE(steps.service && steps.service <= steps.accepted && steps.accepted <= steps.path
        && steps.path <= steps.secured);

    channel->channel->send(Bytes{1, 2, 3});
    ASSERT_TRUE(
        advanceUntil([&] { return hostEnd.streams.size() == 1 && !hostEnd.streams[0]->received.empty(); }));
    hostEnd.streams[0]->channel->send(Bytes{4});
    EXPECT_TRUE(advanceUntil([&] { return channel->received == Bytes{4}; }));

    service.line().cut("gone"); // which no session minds
    queues.advance(10s);
    EXPECT_FALSE(channel->closed);
    EXPECT_FALSE(hostEnd.closed);

    channel->channel->send(Bytes{5});
    channel->channel->finish();
    channel.reset();
    connector.reset();
    EXPECT_TRUE(advanceUntil([&] { return hostEnd.closed.has_value(); }, 3s));
    EXPECT_EQ(hostEnd.streams[0]->received, (Bytes{1, 2, 3, 5}));
    EXPECT_EQ(hostEnd.closed, "in order");
}

TEST_F(PhoneConnectorTest, asksInAWayThatOnlyItsKeyCan)
{
    start();
    greet();
    const ConnectRequest first = request();
    EXPECT_TRUE(first.isSignedBy(phone->publicKey(), place.hostID));
    EXPECT_FALSE(first.isSignedBy(host->publicKey(), place.hostID));
    EXPECT_TRUE(first.isTimely(queue->wallNow()));
    EXPECT_EQ(first.clientKeyHash, phone->fingerprint());
    EXPECT_FALSE(first.pairing);
    EXPECT_FALSE(first.remote.candidates.empty());
    start();
    greet();
    EXPECT_NE(request().nonce, first.nonce);
}

TEST_F(PhoneConnectorTest, pairsOnTheWay)
{
    const SecretBytes code(Bytes(32, 9));
    start(PhoneConnector::Pairing{code, "王小明的 iPhone"});
    greet();
    const ConnectRequest asked = request();
    ASSERT_TRUE(asked.pairing);
    EXPECT_EQ(asked.pairing->deviceName, "王小明的 iPhone");
    EXPECT_EQ(asked.pairing->clientKey, phone->publicKey());
    EXPECT_TRUE(asked.isSignedBy(phone->publicKey(), place.hostID));
    EXPECT_EQ(
        asked.pairing->proof, pairingProof(code, phone->publicKey(), asked.pairingContext(place.hostID)));

    grant(asked, {{"paired", true}, {"hostName", "书房\nStudio"}});
    EXPECT_FALSE(channel) << "the service may say what it likes; the host has to prove its key";
    ASSERT_TRUE(advanceUntil([&] { return channel != nullptr; }));
    EXPECT_EQ(hostName, "书房 Studio");
}

TEST_F(PhoneConnectorTest, takesNobodyElseForTheHost)
{
    place.fingerprint = phone->fingerprint();
    start();
    greet();
    grant(request());
    ASSERT_TRUE(advanceUntil([&] { return failure.has_value(); }));
    EXPECT_EQ(failure->kind, Kind::wrongHost);
    EXPECT_FALSE(channel);
}

TEST_F(PhoneConnectorTest, saysWhatWentWrong)
{
    const json nowhere{
        {"ufrag", "abcdefgh"}, {"password", "abcdefghijklmnopqrstuvwx"}, {"candidates", json::array()}};
    const auto accept = [&](json response) { say({{"type", "accept"}, {"response", std::move(response)}}); };
    const auto pass = [&](Duration time) { return [this, time] { queues.advance(time); }; };
    const struct {
        const char* name;
        bool isGreeted;
        std::function<void()> happens;
        Kind kind;
        const char* text;
    } rows[] = {
        {"no greeting", false, pass(10s), Kind::lost, "did not answer"},
        {"an odd greeting", false, [&] { say({{"type", 7}}); }, Kind::lost, "makes no sense"},
        {"an early accept", false, [&] { accept(nowhere); }, Kind::lost, "makes no sense"},
        {"the host is off", false, [&] { say({{"type", "hello"}, {"online", false}}); }, Kind::hostOffline,
            "not registered"},
        {"an odd state", false, [&] { say({{"type", "hello"}, {"online", "yes"}}); }, Kind::hostOffline,
            "not registered"},
        {"no service", false,
            [&] {
                service.line().cut("reset");
                queues.runReady();
            },
            Kind::lost, "service is gone"},
        {"no answer", true, pass(35s), Kind::lost, "did not answer"},
        {"a refusal", true, [&] { say({{"type", "reject"}, {"reason", "这部手机\n没有配对"}}); },
            Kind::refused, "这部手机 没有配对"},
        {"a refusal in odd words", true, [&] { say({{"type", "reject"}, {"reason", {1}}}); }, Kind::refused,
            "without a word"},
        {"the host leaves", true, [&] { say({{"type", "closed"}}); }, Kind::lost, "the host left"},
        {"the service leaves", true,
            [&] {
                service.line().cut("reset");
                queues.runReady();
            },
            Kind::lost, "service is gone"},
        {"an accept of nothing", true, [&] { say({{"type", "accept"}}); }, Kind::lost, "makes no sense"},
        {"an accept of a text", true, [&] { accept("x"); }, Kind::lost, "makes no sense"},
        {"an accept without password", true, [&] { accept({{"ufrag", "a"}, {"candidates", json::array()}}); },
            Kind::lost, "makes no sense"},
        {"an accept with odd candidates", true,
            [&] { accept({{"ufrag", "a"}, {"password", "b"}, {"candidates", 7}}); }, Kind::lost,
            "makes no sense"},
        {"the host leaves an unfinished path", true,
            [&] {
                accept(nowhere);
                say({{"type", "closed"}});
            },
            Kind::noPath, "the host left"},
        {"the service leaves an unfinished path", true,
            [&] {
                accept(nowhere);
                service.line().cut("reset");
                queues.runReady();
            },
            Kind::noPath, "service is gone"},
        {"the host has no path", true,
            [&] {
                accept(nowhere);
                say({{"type", "signal"}, {"data", {{"error", "Mac 这边建立路径失败：x"}}}});
            },
            Kind::noPath, "Mac 这边建立路径失败：x"},
        {"no way through", true,
            [&] {
                accept(nowhere);
                say({{"type", "signal"}, {"data", 7}});
                say({{"type", "odd"}});
                queues.advance(15s);
            },
            Kind::noPath, "within 15 s"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        start();
        if (row.isGreeted) greet();
        EXPECT_FALSE(failure);
        row.happens();
        queues.runReady();
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->kind, row.kind) << failure->text;
        EXPECT_THAT(failure->text, HasSubstr(row.text));
        EXPECT_TRUE(service.line().isClosed);
    }

    start(PhoneConnector::Pairing{SecretBytes(Bytes(32, 9)), "phone"});
    greet();
    accept(nowhere); // which pairs nobody
    ASSERT_TRUE(failure);
    EXPECT_THAT(failure->text, HasSubstr("makes no sense"));
    service.unreachable = NetError{"connection refused"};
    start();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind, Kind::serviceUnreachable);
    EXPECT_THAT(failure->text, HasSubstr("connection refused"));
    place.service = "ftp://x";
    start();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind, Kind::serviceUnreachable);
}

TEST_F(PhoneConnectorTest, borrowsRelaysAnewWhileTheSessionLasts)
{
    start();
    say({{"type", "hello"}, {"online", true},
        {"turn", {{"uris", {"turn:relay.example"}}, {"username", "u"}, {"credential", "c"}}}});
    grant(request());
    ASSERT_TRUE(advanceUntil([&] { return channel || failure; }));
    queues.advance(4h);
    ASSERT_EQ(service.lines.size(), 2u);
    EXPECT_EQ(service.line().url, service.lines.front()->url);
    connector.reset(); // while it asks
    EXPECT_TRUE(service.line().isClosed);
    queues.advance(1min);
}

TEST_F(PhoneConnectorTest, mayGoAtAnyMoment)
{
    for (int step = 0; step < 60; ++step) {
        start();
        if (step > 0) greet();
        if (step > 1) grant(request());
        for (int i = 2; i < step; ++i) queues.advance(1ms);
        connector.reset();
        channel.reset();
        queues.advance(2s);
        hostPath.reset();
        hostEnd = {};
        hostListener.reset();
    }
    EXPECT_FALSE(failure);
}

TEST_F(PhoneConnectorTest, followsItsPathThroughAChangeOfTheNetwork)
{
    reach();
    connector->networkChanged();
    queues.advance(1s);
    channel->channel->send(Bytes{1});
    EXPECT_TRUE(
        advanceUntil([&] { return !hostEnd.streams.empty() && !hostEnd.streams[0]->received.empty(); }));
    const auto told = service.line().takeReceived();
    EXPECT_FALSE(told.empty()); // of our addresses
    for (const json& message : told) EXPECT_EQ(message["type"], "signal") << message;
}

} // namespace
} // namespace pelorin
