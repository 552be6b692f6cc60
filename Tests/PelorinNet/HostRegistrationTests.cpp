#include "PelorinNet/Rendezvous/HostRegistration.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/VerifyingKey.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Memory.h"
#include "Tests/Peers/ScriptedService.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

class HostRegistrationTest : public testing::Test {
protected:
    HostRegistrationTest()
    {
        Log::observe([this](LogLevel level, std::string_view, std::string_view text) {
            if (level != LogLevel::debug) logged.emplace_back(text);
        });
    }
    ~HostRegistrationTest() override { Log::observe({}); }

    void begin(std::vector<std::string> urls = {"wss://one.example/v1/host"})
    {
        registration = std::make_unique<HostRegistration>(
            queue, *identity, HostRegistration::Settings{"Studio", std::move(urls)}, service.maker());
        registration->onRegistered = [this](bool isRegistered) { outcomes.push_back(isRegistered); };
        registration->onMessage = [this](const json& message) { messages.push_back(message["type"]); };
        registration->onLinkEnd = [this] { ++linkEnds; };
        registration->start();
        queues.runReady();
    }
    void challenge() { say({{"type", "challenge"}, {"nonce", "n-o-n-c-e"}}); }
    void enter()
    {
        challenge();
        say({{"type", "registered"}});
        ASSERT_TRUE(registration->isRegistered());
    }
    void say(json message)
    {
        service.line().say(std::move(message));
        queues.runReady();
    }
    void cut(const char* why = "gone")
    {
        service.line().cut(why);
        queues.runReady();
    }
    // How long until the host opens another link.
    Duration pause()
    {
        const auto count = service.lines.size();
        const SteadyTime began = queues.now();
        while (service.lines.size() == count && queues.now() - began < 10min) queues.advance(100ms);
        return queues.now() - began;
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("dev.pelorin.host-agent");
    const std::unique_ptr<SoftwareIdentity> identity = makeQuicIdentity("host");
    ScriptedService service;
    std::vector<std::string> logged, messages;
    std::vector<bool> outcomes;
    int linkEnds = 0;
    std::unique_ptr<HostRegistration> registration;
};

TEST_F(HostRegistrationTest, provesItsKey)
{
    begin();
    challenge();
    ASSERT_EQ(service.line().received.size(), 1u);
    const json message = service.line().received[0];
    EXPECT_EQ(message["type"], "register");
    EXPECT_EQ(message["name"], "Studio");
    const Bytes key = *bytesFromBase64(message["publicKey"].get<std::string>());
    const Bytes signature = *bytesFromBase64(message["signature"].get<std::string>());
    EXPECT_EQ(key, identity->publicKey());
    const std::string hostID = KeyFingerprint::hostID(key);
    const std::string text = "pelorin-host-v1|" + hostID + "|n-o-n-c-e";
    EXPECT_EQ(signature.size(), 64u);
    EXPECT_TRUE(VerifyingKey::fromX963(key)->hasSignedRaw(Bytes(text.begin(), text.end()), signature));
    EXPECT_TRUE(outcomes.empty());

    say({{"type", "registered"}});
    EXPECT_THAT(outcomes, ElementsAre(true));
    EXPECT_THAT(logged, ElementsAre("registered with the rendezvous service as " + hostID));
    say({{"no", "type"}});
    say({{"type", "connect"}});
    EXPECT_THAT(messages, ElementsAre("connect"));
}

// Cut off once an hour.
TEST_F(HostRegistrationTest, staysForADayAndHoldsOnToNothing)
{
    begin();
    std::ptrdiff_t afterTwoHours = 0;
    int pings = 0;
    for (int hour = 0; hour < 24; ++hour) {
        enter();
        queues.advance(1h);
        EXPECT_TRUE(registration->isRegistered());
        pings += service.line().pings;
        cut();
        EXPECT_LE(pause(), 2s);
        service.lines.erase(service.lines.begin(), service.lines.end() - 1);
        logged.clear();
        if (hour == 1) afterTwoHours = lab::heapInUse();
    }
    EXPECT_NEAR(pings, 24 * 240, 24);
    EXPECT_LE(lab::heapInUse() - afterTwoHours, 8 * 1024);
    EXPECT_EQ(linkEnds, 24);
}

TEST_F(HostRegistrationTest, beginsAnewWhenItIsNotTaken)
{
    const struct {
        const char* name;
        std::function<void()> happens;
        const char* logged;
    } cases[] = {
        {"another message first", [this] { say({{"type", "registered"}}); },
            "no challenge from the rendezvous service"},
        {"a challenge without a nonce", [this] { say({{"type", "challenge"}}); },
            "no challenge from the rendezvous service"},
        {"a nonce that is no text", [this] { say({{"type", "challenge"}, {"nonce", 7}}); },
            "no challenge from the rendezvous service"},
        {"a refusal",
            [this] {
                challenge();
                say({{"type", "error"}, {"reason", "who are you"}});
            },
            "the rendezvous service refused this Mac's key"},
        {"silence", [this] { queues.advance(10s); }, "timed out"},
        {"silence after the challenge",
            [this] {
                challenge();
                queues.advance(10s);
            },
            "timed out"},
        {"no service there", [this] { service.unreachable.reset(); }, "Connection refused"},
        {"an end", [this] { cut("rendezvous sent binary data"); }, "rendezvous sent binary data"},
    };
    for (const auto& [name, happens, text] : cases) {
        SCOPED_TRACE(name);
        logged.clear();
        outcomes.clear();
        if (std::string_view(text) == "Connection refused") service.unreachable = NetError{text};
        begin();
        happens();
        EXPECT_TRUE(service.line().isClosed);
        EXPECT_THAT(logged, ElementsAre(HasSubstr(text)));
        EXPECT_THAT(outcomes, ElementsAre(false));
        EXPECT_LE(pause(), 2s);
        enter();
        EXPECT_EQ(linkEnds, 0);
    }
}

TEST_F(HostRegistrationTest, noticesThatTheServiceIsSilent)
{
    begin();
    enter();
    queues.advance(24h);
    EXPECT_EQ(service.lines.size(), 1u);
    EXPECT_EQ(service.line().pings, 24 * 60 * 4);

    service.line().answersPings = false;
    const auto count = service.line().pings;
    queues.advance(45s);
    EXPECT_EQ(service.lines.size(), 2u) << "at once";
    EXPECT_TRUE(service.lines[0]->isClosed);
    EXPECT_EQ(service.lines[0]->pings, count + 2);
    EXPECT_EQ(linkEnds, 1);
    EXPECT_THAT(logged.back(), HasSubstr("rendezvous: no answer for 45 s, reconnecting"));
    EXPECT_THAT(outcomes, ElementsAre(true, false));
    enter();
}

TEST_F(HostRegistrationTest, pausesLongerWithEachFailureAndTriesTheServicesInTurn)
{
    begin({"wss://one.example", "wss://two.example"});
    Duration ceiling = 2s, total{};
    for (int i = 0; i < 40; ++i) {
        EXPECT_EQ(service.line().url, i % 2 ? "wss://two.example" : "wss://one.example");
        cut("Connection refused");
        const Duration waited = pause();
        EXPECT_GE(waited, 1s);
        EXPECT_LE(waited, ceiling + 100ms);
        total += waited;
        ceiling = std::min<Duration>(ceiling * 2, 60s);
    }
    EXPECT_GT(total, 10min) << "a service that is down is not pressed";
    EXPECT_EQ(logged.size(), 1u) << "once is enough for the log";

    enter();
    queues.advance(20s);
    cut();
    EXPECT_GT(pause(), 0s);
    EXPECT_EQ(service.line().url, "wss://two.example") << "it dropped us as soon as it had us";
    enter();
    queues.advance(30s);
    cut();
    EXPECT_LE(pause(), 2s + 100ms);
    EXPECT_EQ(service.line().url, "wss://one.example");
}

TEST_F(HostRegistrationTest, triesAgainAtOnceWhenTheNetworkHasChanged)
{
    begin();
    for (int i = 0; i < 10; ++i) {
        cut();
        pause();
    }
    cut();
    const auto count = service.lines.size();
    registration->networkChanged();
    EXPECT_EQ(service.lines.size(), count + 1) << "during a pause";
    registration->networkChanged();
    EXPECT_EQ(service.lines.size(), count + 2) << "during an attempt";
    enter();

    registration->networkChanged();
    queues.advance(10s);
    EXPECT_EQ(service.lines.size(), count + 2) << "the service still answers";
    service.line().answersPings = false;
    queues.advance(1s);
    registration->networkChanged();
    queues.advance(5s);
    EXPECT_EQ(service.lines.size(), count + 3) << "it does no longer";
}

TEST_F(HostRegistrationTest, restsWhenStopped)
{
    begin();
    registration->stop();
    registration->networkChanged();
    queues.advance(10min);
    EXPECT_EQ(service.lines.size(), 1u);
    EXPECT_TRUE(service.line().isClosed);
    registration->start();
    enter();
    registration->onMessage = [this](const json&) { registration->stop(); };
    service.line().say({{"type", "connect"}});
    say({{"type", "connect"}});
    cut();
    queues.advance(10min);
    EXPECT_EQ(service.lines.size(), 2u);
    registration->start();
    enter();
    registration->onMessage = [this](const json&) { registration.reset(); };
    say({{"type", "connect"}});
    queues.advance(10min);
    EXPECT_EQ(service.lines.size(), 3u);
}

} // namespace
} // namespace pelorin
