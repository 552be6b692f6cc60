#include "PelorinPhone/Pairing/PairingExchange.h"

#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/ScriptedHost.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::ScriptedHost;
using testing::ElementsAre;
using testing::HasSubstr;
using Kind = PairingExchange::Failure::Kind;

const PairingLink link{
    "Studio", "100.64.0.1", "studio.ts.net", 7420, "pair-0123456789abcdef", SecretBytes(Bytes(32, 9))};
const PelorinTLS::Key linkKey{link.pairingID, link.key};
const PelorinTLS::Key otherKey{"dev-0000000000000000", SecretBytes(Bytes(32, 1))};
const message::PairResult issued{"dev-0123456789abcdef", Bytes(32, 5), "My\nStudio"};

// The exchange against a host that speaks real TLS, on virtual time.
struct PairingExchangeTest : testing::Test {
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("phone");
    QueueRef hostQueue = queues.makeQueue("host");
    std::vector<PelorinTLS::Key> hostKeys{linkKey};
    bool hostSpeaksTLS = true;
    std::vector<std::string> unreachable;
    std::vector<std::string> tried;
    std::unique_ptr<ScriptedHost> host; // of the latest connection
    std::unique_ptr<Channel> plainHost; // the same without TLS
    std::unique_ptr<PairingExchange> exchange;
    std::optional<Result<PairedHost, PairingExchange::Failure>> result;

    PairingExchangeTest()
    {
        Log::observe([](LogLevel, std::string_view, std::string_view) {});
    }
    ~PairingExchangeTest() override
    {
        exchange.reset();
        host.reset();
        plainHost.reset();
        queues.runReady();
        Log::observe({});
    }

    Subscription connectTo(const std::string& name, std::uint16_t port, Connected connected)
    {
        tried.push_back(fmt::format("{}:{}", name, port));
        const bool isReachable = std::ranges::count(unreachable, name) == 0;
        queue->post([this, isReachable, connected = std::move(connected)] {
            if (!isReachable) return connected(std::unexpected(NetError{"unreachable"}));
            auto pair = LoopbackPair::make({});
            if (hostSpeaksTLS)
                host = std::make_unique<ScriptedHost>(
                    PelorinTLS::serverChannel(std::move(pair.second), PelorinTLS::parameters(hostKeys)),
                    hostQueue);
            else
                answerPlainly(std::move(pair.second));
            connected(std::move(pair.first));
        });
        return {};
    }

    void answerPlainly(std::unique_ptr<Channel> channel)
    {
        plainHost = std::move(channel);
        plainHost->onBytes = [this](ByteView) { plainHost->send(encodeFrame(message::Error{})); };
        hostQueue->post([this] { plainHost->start(hostQueue); });
    }

    void start()
    {
        exchange = std::make_unique<PairingExchange>(
            queue,
            [this](const std::string& name, std::uint16_t port, Connected connected) {
                return connectTo(name, port, std::move(connected));
            },
            link, "my viewer");
        exchange->onDone = [this](auto done) {
            result = std::move(done);
            exchange.reset();
        };
        exchange->start();
        queues.runReady();
    }

    void hostSays(const Message& message)
    {
        hostQueue->post([this, message] { host->say(message); });
        queues.runReady();
    }
};

TEST_F(PairingExchangeTest, bringsBackWhatTheHostIssued)
{
    start();
    EXPECT_THAT(
        host->all<message::PairRequest>(), ElementsAre(message::PairRequest{link.pairingID, "my viewer"}));
    EXPECT_EQ(host->heard.size(), 1u) << "no hello on this channel";
    EXPECT_FALSE(result);
    hostSays(issued);
    ASSERT_TRUE(result && *result);
    EXPECT_EQ(**result,
        (PairedHost{"My Studio", {"100.64.0.1", "studio.ts.net", 7420},
            {issued.deviceID, SecretBytes(ByteView(issued.key))}}));
    EXPECT_THAT(tried, ElementsAre("100.64.0.1:7420"));
    EXPECT_TRUE(host->isClosed);
}

TEST_F(PairingExchangeTest, passesOnTheHostsWords)
{
    start();
    hostSays(message::Error{ErrorCode::unauthorized, "配对码已过期或已经用过。"});
    ASSERT_TRUE(result && !*result);
    EXPECT_EQ(result->error().kind, Kind::refused);
    EXPECT_EQ(result->error().text, "配对码已过期或已经用过。");
}

TEST_F(PairingExchangeTest, waitsForTheHostToListenWithTheLinksKey)
{
    hostKeys = {otherKey};
    start();
    queues.advance(2s);
    unreachable = {link.address, *link.dnsName}; // while the listener is replaced
    queues.advance(2s);
    EXPECT_FALSE(result);
    unreachable.clear();
    hostKeys.push_back(linkKey);
    queues.advance(2s);
    hostSays(issued);
    EXPECT_TRUE(result && *result);
}

TEST_F(PairingExchangeTest, saysThatALinkIsSpentWhenItsKeyStaysUnknown)
{
    hostKeys = {};
    start();
    queues.advance(5s);
    EXPECT_FALSE(result);
    queues.advance(1s);
    ASSERT_TRUE(result && !*result);
    EXPECT_EQ(tried.size(), 3u) << "no more, or a host takes us for an intruder";
    EXPECT_EQ(result->error().kind, Kind::refused);
    EXPECT_THAT(result->error().text, HasSubstr("does not know this pairing link"));
    EXPECT_THAT(result->error().text, HasSubstr("pelorin-host pair"));
}

TEST_F(PairingExchangeTest, triesTheNameWhenTheAddressIsUnreachable)
{
    unreachable = {"100.64.0.1"};
    start();
    EXPECT_THAT(tried, ElementsAre("100.64.0.1:7420", "studio.ts.net:7420"));
    hostSays(issued);
    EXPECT_TRUE(result && *result);

    unreachable.emplace_back("studio.ts.net");
    start();
    ASSERT_TRUE(result && !*result);
    EXPECT_EQ(result->error().kind, Kind::cannotConnect);
    EXPECT_EQ(result->error().text, "100.64.0.1: unreachable; studio.ts.net: unreachable");
}

TEST_F(PairingExchangeTest, endsAtOnceWithAPeerThatMakesNoSense)
{
    const struct {
        const char* what;
        Message answer;
    } rows[] = {
        {"no identity of a device", message::PairResult{"pair-0123456789abcdef", Bytes(32, 5), "x"}},
        {"a short key", message::PairResult{"dev-0123456789abcdef", Bytes(31, 5), "x"}},
    };
    for (const auto& [what, answer] : rows) {
        result.reset();
        start();
        hostSays(answer);
        ASSERT_TRUE(result && !*result) << what;
        EXPECT_EQ(result->error().kind, Kind::lost) << what;
    }
    result.reset();
    start();
    hostQueue->post([this] { host->say(Bytes{41, 0xFF, 0xFF, 0xFF, 0xFF}); });
    queues.runReady();
    ASSERT_TRUE(result && !*result) << "a frame beyond all bounds";

    result.reset();
    start();
    hostQueue->post([this] { host->hangUp(); });
    queues.runReady();
    ASSERT_TRUE(result && !*result) << "hung up";

    result.reset();
    start();
    queues.advance(20s);
    ASSERT_TRUE(result && !*result) << "silent";
    EXPECT_THAT(result->error().text, HasSubstr("did not answer"));

    result.reset();
    hostSpeaksTLS = false;
    start();
    ASSERT_TRUE(result && !*result);
    EXPECT_THAT(result->error().text, HasSubstr("does not speak TLS"));
}

TEST_F(PairingExchangeTest, mayBeDroppedAtAnyMoment)
{
    for (int steps = 0; steps < 12; ++steps) {
        hostKeys = {steps % 2 ? otherKey : linkKey};
        start();
        queues.advance(steps * 500ms);
        exchange.reset();
        queues.advance(30s);
        EXPECT_FALSE(result) << steps;
    }
}

} // namespace
} // namespace pelorin
