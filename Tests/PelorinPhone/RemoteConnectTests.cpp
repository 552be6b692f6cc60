#include "PelorinPhone/RemoteConnect.h"

#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/ScriptedHost.h"

#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::ScriptedHost;
using testing::AllOf;
using testing::HasSubstr;

const PelorinTLS::Key key{"dev-0123456789abcdef", SecretBytes(Bytes(32, 5))};
const PelorinTLS::Key otherKey{"dev-0123456789abcdef", SecretBytes(Bytes(32, 6))};

// Two ways to one host, as slow and as broken as a case wants them.
struct EitherWayTest : testing::Test {
    struct Way {
        Duration after{}; // until the connection is made, or fails
        bool isThere = true;
        bool knowsUs = true; // of the tailnet's: has our key
    };

    ~EitherWayTest() override
    {
        attempt.cancel();
        channel.reset();
        hosts.clear();
        queues.runReady();
    }

    Connect over(const std::string& name, const Way& way, bool isSecured)
    {
        return [this, name, way, isSecured](const Connected& connected) {
            return queue->after(way.after, [=, this] {
                if (!way.isThere) return connected(std::unexpected(NetError{name + " leads nowhere"}));
                auto pair = LoopbackPair::make({.pathDescription = name});
                if (!isSecured) {
                    hosts.push_back(std::make_unique<ScriptedHost>(std::move(pair.second), hostQueue));
                    return connected(std::move(pair.first));
                }
                hosts.push_back(std::make_unique<ScriptedHost>(
                    PelorinTLS::serverChannel(
                        std::move(pair.second), PelorinTLS::parameters({way.knowsUs ? key : otherKey})),
                    hostQueue));
                connected(PelorinTLS::clientChannel(std::move(pair.first), key));
            });
        };
    }
    void connect(const Way& tailnet, const Way& remote)
    {
        outcome.clear();
        attempt = connectEitherWay(queue, over("tailnet", tailnet, true), over("remote", remote, false))(
            [this](Result<std::unique_ptr<Channel>, NetError> made) {
                outcome = made ? (*made)->pathDescription() : made.error().description;
                if (made) channel = std::move(*made);
            });
        queues.runReady();
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("phone"), hostQueue = queues.makeQueue("host");
    std::vector<std::unique_ptr<ScriptedHost>> hosts;
    Subscription attempt;
    std::string outcome;
    std::unique_ptr<Channel> channel;
};

TEST_F(EitherWayTest, prefersTheTailnetWhileItsHeadStartLasts)
{
    const Way never{.after = 1h, .isThere = true, .knowsUs = true};
    const struct {
        const char* name;
        Way tailnet, remote;
        Duration at; // when it is decided
        const char* winner;
    } rows[] = {
        {"both at once", {}, {}, 0ms, "tailnet"},
        {"the service sooner", {.after = 290ms}, {.after = 10ms}, 290ms, "tailnet"},
        {"the tailnet too late", {.after = 310ms}, {.after = 10ms}, 300ms, "remote"},
        {"both late, the tailnet first", {.after = 400ms}, {.after = 500ms}, 400ms, "tailnet"},
        {"both late, the service first", {.after = 500ms}, {.after = 400ms}, 400ms, "remote"},
        {"no tailnet", {.after = 5ms, .isThere = false}, {.after = 10ms}, 10ms, "remote"},
        {"the tailnet fails late", {.after = 200ms, .isThere = false}, {.after = 10ms}, 200ms, "remote"},
        {"the tailnet is silent", never, {.after = 10ms}, 300ms, "remote"},
        {"a stranger on the tailnet", {.knowsUs = false}, {.after = 10ms}, 10ms, "remote"},
        {"no service", {.after = 700ms}, {.isThere = false}, 700ms, "tailnet"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        channel.reset();
        connect(row.tailnet, row.remote);
        if (row.at > 0ms) queues.advance(row.at - 1ms);
        if (row.at > 0ms) {
            EXPECT_EQ(outcome, "");
            queues.advance(1ms);
        }
        EXPECT_THAT(outcome, HasSubstr(row.winner));
        queues.advance(1s);
        ASSERT_TRUE(channel);
        int open = 0;
        for (const auto& host : hosts) open += !host->isClosed;
        EXPECT_EQ(open, 1) << "the other way is dropped";

        channel->start(queue); // it works as any other
        channel->send(encodeFrame(message::Bye{}));
        queues.runReady();
        channel->finish();
        queues.runReady();
        bool isHeard = false;
        for (const auto& host : hosts) isHeard |= !host->all<message::Bye>().empty();
        EXPECT_TRUE(isHeard);
        hosts.clear();
    }
}

TEST_F(EitherWayTest, saysWhyNeitherLeadsToTheHost)
{
    connect({.after = 5ms, .isThere = false}, {.after = 9ms, .isThere = false});
    queues.advance(9ms);
    EXPECT_THAT(outcome, AllOf(HasSubstr("tailnet leads nowhere"), HasSubstr("remote leads nowhere")));
    connect({.knowsUs = false}, {.isThere = false});
    EXPECT_THAT(outcome, AllOf(HasSubstr("TLS handshake failed"), HasSubstr("remote leads nowhere")));
}

TEST_F(EitherWayTest, handsOnWhatTheHostSaidEarlyAndItsEnd)
{
    connect({}, {.after = 1h});
    ASSERT_TRUE(channel);
    hostQueue->post([this] { hosts[0]->say(message::HelloAck{protocolVersion, "Studio"}); });
    queues.runReady();
    hostQueue->post([this] { hosts[0]->hangUp(); });
    queues.runReady();
    std::string story;
    FrameDecoder decoder;
    channel->onBytes = [&](ByteView bytes) { story += std::to_string(decoder.feed(bytes)->size()); };
    channel->onClosed = [&](const std::optional<NetError>&) {
        story += " closed";
        channel.reset();
    };
    channel->start(queue);
    EXPECT_EQ(story, "") << "nobody is called from within a call";
    queues.runReady();
    EXPECT_EQ(story, "1 closed");
}

TEST_F(EitherWayTest, mayBeCalledOffAtAnyMoment)
{
    for (const auto after : {0ms, 1ms, 299ms, 300ms, 301ms}) {
        connect({.after = 1h}, {.after = 301ms});
        queues.advance(after);
        attempt.cancel();
        queues.advance(2h);
        EXPECT_TRUE(outcome.empty() || after > 300ms) << outcome;
    }
}

} // namespace
} // namespace pelorin
