#include "PelorinNet/Path/NatProbe.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/RawUDP.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Kind = NatProbe::Kind;

const SocketAddress outside = SocketAddress::ipv4({203, 0, 113, 7}, 51'820);
const SocketAddress otherPort = SocketAddress::ipv4({203, 0, 113, 7}, 51'821);

struct NatProbeTest : testing::Test {
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    RawUDP servers[6];
    std::optional<NatProbe::Answer> answer;
    std::unique_ptr<NatProbe> probe;

    void ask(const std::vector<std::string>& names, std::vector<std::string> own = {})
    {
        std::vector<PathServers::Server> asked;
        for (const auto& name : names) asked.push_back({name, 3478});
        probe = std::make_unique<NatProbe>(
            queue, [this](const PathServers::Server& server, const QueueRef& home, auto done) {
                home->post([this, done = std::move(done), which = server.host] {
                    done(which == "unknown" ? std::vector<SocketAddress>()
                                            : std::vector{servers[std::stoul(which)].address});
                });
            });
        probe->ask(asked, std::move(own), [this](const NatProbe::Answer& found) { answer = found; });
        queues.runReady();
    }
    // As that server sees it; nothing: as it really is.
    void answerAs(std::size_t which, std::optional<SocketAddress> seen)
    {
        for (const auto& request : servers[which].receive()) {
            auto message = *StunMessage::parse(request.bytes);
            message.messageClass = StunMessage::Class::success;
            message.attributes.push_back(
                StunMessage::xorAddressAttribute(StunMessage::AttributeType::xorMappedAddress,
                    seen.value_or(request.source), message.transactionID));
            servers[which].send(message.serialize(), request.source);
        }
        queues.runReady();
    }
};

TEST_F(NatProbeTest, comparesWhatServersSee)
{
    const struct {
        std::vector<std::optional<SocketAddress>> seen;
        std::vector<std::string> own;
        Kind kind;
    } rows[] = {
        {{outside, outside}, {"10.0.0.2"}, Kind::oneForAll},
        {{outside, otherPort}, {"10.0.0.2"}, Kind::oneForEach},
        {{outside, outside, otherPort}, {}, Kind::oneForEach}, {{outside}, {}, Kind::some},
        {{std::nullopt, std::nullopt}, {"127.0.0.1"}, Kind::none},
        {{outside}, {"203.0.113.7"}, Kind::some}, // a NAT that changes the port alone
    };
    for (const auto& [seen, own, kind] : rows) {
        answer.reset();
        std::vector<std::string> names;
        for (std::size_t i = 0; i < seen.size(); ++i) names.push_back(std::to_string(i));
        ask(names, own);
        for (std::size_t i = 0; i < seen.size(); ++i) {
            EXPECT_FALSE(answer);
            answerAs(i, seen[i]);
        }
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->kind, kind);
        EXPECT_EQ(answer->seen, seen[0].value_or(*answer->seen));
    }
}

TEST_F(NatProbeTest, isContentWithThoseThatAnswerInTime)
{
    ask({"0", "1", "unknown"});
    answerAs(1, outside);
    queues.advance(2999ms);
    EXPECT_FALSE(answer);
    queues.advance(1ms);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->kind, Kind::some);
    EXPECT_EQ(answer->seen, outside);
    EXPECT_EQ(answer->silent, 2U);
}

TEST_F(NatProbeTest, saysThatNobodyAnswered)
{
    ask({"unknown"});
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->kind, Kind::silent);
}

TEST_F(NatProbeTest, asksFourServersAtMostAndEachOnce)
{
    ask({"0", "0", "1", "2", "3", "4"});
    EXPECT_EQ(servers[0].receive().size(), 1U);
    for (const int which : {1, 2}) EXPECT_EQ(servers[which].receive().size(), 1U) << which;
    for (const int which : {3, 4}) EXPECT_TRUE(servers[which].receive().empty()) << which;
    queues.advance(3s);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->kind, Kind::silent);
}

} // namespace
} // namespace pelorin
