#include "PelorinHost/HostServer.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeHostPlatform.h"
#include "Tests/Fakes/FakePhone.h"
#include "Tests/Lab/Files.h"
#include "Tests/Peers/RemotePhone.h"
#include "Tests/Peers/ScriptedService.h"
#include "Tests/PelorinHost/LogLines.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// A host in no tailnet whose rendezvous service is played by the test.
class RemoteEntranceTest : public testing::Test {
protected:
    RemoteEntranceTest() { config.rendezvousURL = "https://meet.example"; }

    void begin()
    {
        server = std::make_unique<HostServer>(
            SessionSurroundings{platform, queues, pairing, std::nullopt}, config,
            [](auto&&...) -> Result<std::unique_ptr<TcpListener>, NetError> {
                return std::unexpected(NetError{"nobody listens here"});
            },
            queues.makeQueue("dev.pelorin.host.server"),
            RemoteEntrance::Means{
                service.maker(), "wss://meet.example/v1/host", identity, makePathWithoutServers});
        server->onEvent = [this](const ServerEvent& event) {
            if (const auto* e = std::get_if<serverEvent::Rendezvous>(&event))
                events.push_back(e->status.value_or("gone"));
            if (const auto* e = std::get_if<serverEvent::Rejected>(&event)) events.push_back(e->text);
        };
        server->onConnectionLog = [this](const std::string& line) { connectionLog.push_back(line); };
        server->start();
        queues.runReady();
    }
    void enter()
    {
        say({{"type", "challenge"}, {"nonce", "n"}});
        say({{"type", "registered"}});
    }
    void say(json message)
    {
        service.line().say(std::move(message));
        queues.runReady();
    }
    SignedRequest requestOf(PathDescription local = {"abcdefgh", "abcdefghijklmnopqrstuvwx", {}})
    {
        SignedRequest request{*phone, server->status().hostID.value(),
            std::chrono::floor<std::chrono::seconds>(clock->wallNow().time_since_epoch()).count()};
        request.nonce = "nonce-" + std::to_string(++nonces);
        request.local = std::move(local);
        return request;
    }
    // What the host answers: accept's response, or the refusal as a text.
    json answerTo(const json& request)
    {
        const std::string id = "s" + std::to_string(++sessions);
        service.line().takeReceived();
        say({{"type", "connect"}, {"session", id}, {"request", request}});
        for (const json& message : service.line().takeReceived()) {
            if (message["type"] == "accept") return message["response"];
            if (message["type"] == "reject") return message["reason"];
        }
        return {};
    }
    bool advanceUntil(const std::function<bool()>& condition)
    {
        for (int i = 0; i < 4'000 && !condition(); ++i) queues.advance(5ms);
        return condition();
    }
    static Bytes bytesOf(const SecretBytes& secret) { return {secret.view().begin(), secret.view().end()}; }

    LogLines log{"rendezvous"};
    fakes::FakeHostPlatform
        platform; // outlives the queues, whose last tasks still use it, as they use the service
    ScriptedService service;
    ManualQueues queues;
    const QueueRef clock = queues.makeQueue("clock");
    lab::TemporaryFolder folder;
    const std::shared_ptr<const SoftwareIdentity> identity = makeQuicIdentity("host");
    PairingStore pairing{folder.path(), queues.makeQueue("pairing")};
    HostConfig config;
    const std::unique_ptr<SoftwareIdentity> phone = makeQuicIdentity("phone");
    std::vector<std::string> events, connectionLog;
    int nonces = 0, sessions = 0;
    std::unique_ptr<HostServer> server;
};

TEST_F(RemoteEntranceTest, pairsWithTheCodeOnOfferAndKnowsThePhoneFromThenOn)
{
    begin();
    enter();
    const auto offer = pairing.beginPairing();
    EXPECT_THAT(answerTo(requestOf().json()).get<std::string>(), HasSubstr("没有和这台 Mac 配对"));
    const json response = answerTo(requestOf().pairing(bytesOf(offer.code), "iPhone\n of mine"));
    EXPECT_EQ(response["paired"], true);
    EXPECT_EQ(response["hostName"], platform.systemPort.hostName());
    ASSERT_EQ(pairing.devices().size(), 1u);
    EXPECT_EQ(pairing.devices()[0].publicKey, phone->publicKey());
    EXPECT_FALSE(pairing.pending());
    EXPECT_TRUE(answerTo(requestOf().json()).contains("ufrag"));

    pairing.remove(pairing.devices()[0].id);
    EXPECT_THAT(answerTo(requestOf().json()).get<std::string>(), HasSubstr("可能在 Mac 上被移除了"));
    EXPECT_THAT(log.lines, Not(Contains(HasSubstr("review code"))));
}

TEST_F(RemoteEntranceTest, takesTheReviewCodeAgainAndAgainAndSaysSo)
{
    config.reviewPairingCode = "审核 2026";
    begin();
    enter();
    EXPECT_THAT(log.lines, Contains(HasSubstr("a review code is set")));
    const Bytes code(config.reviewPairingCode.begin(), config.reviewPairingCode.end());
    const auto offer = pairing.beginPairing();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(answerTo(requestOf().pairing(code, "reviewer"))["paired"], true);
        queues.advance(24h);
        log.lines.clear();
        EXPECT_EQ(answerTo(requestOf().pairing(code, "reviewer"))["paired"], true);
        EXPECT_THAT(log.lines, Contains("reviewer was paired with the review code, which never expires"));
    }
    EXPECT_EQ(pairing.devices().size(), 1u);
    EXPECT_TRUE(answerTo(requestOf().pairing(Bytes(32, 1), "stranger")).is_string());
    // One on offer goes before, and is used up.
    const auto another = pairing.beginPairing();
    log.lines.clear();
    EXPECT_EQ(answerTo(requestOf().pairing(bytesOf(another.code), "guest"))["paired"], true);
    EXPECT_FALSE(pairing.pending());
    EXPECT_THAT(log.lines, Not(Contains(HasSubstr("review code"))));
}

TEST_F(RemoteEntranceTest, fillsNoLogWithRefusals)
{
    begin();
    enter();
    for (int i = 0; i < 1'000; ++i) {
        answerTo(7);
        queues.advance(10ms);
    }
    EXPECT_THAT(connectionLog,
        ElementsAre("no Tailscale address; waiting for Tailscale", "rejected 远程手机: 看不懂的请求"));
    EXPECT_EQ(events.back(), "远程手机：看不懂的请求");
    queues.advance(10s);
    answerTo(requestOf().json());
    EXPECT_THAT(connectionLog.back(), HasSubstr("没有和这台 Mac 配对"));
}

TEST_F(RemoteEntranceTest, servesAPhoneOverThePath)
{
    if (hostCandidates(1).empty()) GTEST_SKIP() << "no network interface here but loopback";
    begin();
    enter();
    const auto offer = pairing.beginPairing();
    RemotePhone remote(queues, *phone, identity->fingerprint());
    remote.start(
        answerTo(requestOf(remote.setup->local()).pairing(bytesOf(offer.code), "iPhone")), [this](json data) {
            service.line().say({{"type", "signal"}, {"session", "s1"}, {"data", std::move(data)}});
        });
    ASSERT_TRUE(advanceUntil([&] { return remote.outcome.has_value(); }));
    remote.connect();
    fakes::FakePhone session(remote.quic.connection->openStream(), remote.queue);
    session.hello();
    ASSERT_TRUE(advanceUntil([&] { return server->status().session.has_value(); }));
    EXPECT_EQ(server->status().session->peer, "iPhone");
    EXPECT_THAT(server->status().session->path, HasSubstr("direct "));
    EXPECT_THAT(connectionLog, Contains(HasSubstr("admitted iPhone from direct ")));
    EXPECT_THAT(connectionLog, Contains("session started: iPhone"));
    EXPECT_EQ(session.count<message::HelloAck>(), 1u);

    // Removed while it is here: it is told, over a path that lasts that long.
    pairing.remove(pairing.devices()[0].id);
    EXPECT_TRUE(advanceUntil([&] { return session.count<message::Error>() == 1 && session.isClosed; }));
    EXPECT_FALSE(server->status().session);

    server.reset();
    queues.advance(1min);
    EXPECT_TRUE(service.line().isClosed);
}

} // namespace
} // namespace pelorin
