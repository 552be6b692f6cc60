#include "PelorinNet/Path/PathSetup.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/ScriptedRelay.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

// Two ends on this machine's own addresses, joined by pipes that a case may tap.
class PathSetupTest : public testing::Test {
protected:
    struct End {
        std::unique_ptr<PathSetup> setup;
        std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
        std::optional<Result<std::string, NetError>> outcome;
        std::vector<std::string> changes;
        RawUDP quic;
    };

    void open(End& end, PathSetup::Switches switches = {}, PathServers servers = {})
    {
        const auto lookUp = [this](const PathServers::Server& server, const QueueRef&, const auto& done) {
            const auto known = names.find(server.host);
            done(known == names.end() ? std::vector<SocketAddress>() : known->second);
        };
        end.setup = std::make_unique<PathSetup>(
            queues.makeQueue("dev.pelorin.path"), std::move(servers), lookUp, switches);
        end.setup->onPathChange = [&end](const std::string& label) { end.changes.push_back(label); };
        ASSERT_TRUE(end.setup->open());
        end.setup->setQuicEndpoint(end.quic.address);
    }
    void start(End& end, PathDescription remote, std::shared_ptr<SignalInbox> peer = nullptr,
        std::optional<TurnCredentials> turn = {})
    {
        SignalPipe pipe{[peer](json message) {
                            if (peer) peer->deliver(std::move(message));
                        },
            end.inbox};
        end.setup->start(std::move(remote), std::move(turn), std::move(pipe),
            [&end](auto result) { end.outcome = std::move(result); });
    }
    static PathDescription nobody() { return {"abcdefgh", "abcdefghijklmnopqrstuvwx", {}}; }
    std::string failure(End& end) const
    {
        return end.outcome && !*end.outcome ? end.outcome->error().description : "none";
    }

    ManualQueues queues;
    std::map<std::string, std::vector<SocketAddress>> names;
    End host;
    End phone;
};

TEST_F(PathSetupTest, findsADirectPathBetweenTheAddressesOfThisMachine)
{
    if (hostCandidates(1).empty()) GTEST_SKIP() << "no network interface here but loopback";
    open(host);
    open(phone);
    // The phone is told of no address, so that it has to learn them from the pipe and from the host's checks.
    PathDescription told = host.setup->local();
    told.candidates.clear();
    start(host, phone.setup->local(), phone.inbox);
    start(phone, told, host.inbox);
    queues.advance(200ms);
    for (End* end : {&host, &phone}) {
        ASSERT_TRUE(end->outcome && *end->outcome) << failure(*end);
        EXPECT_THAT(**end->outcome, HasSubstr("direct "));
    }
    phone.quic.send(Bytes(1'350, 0x40), SocketAddress::ipv4({127, 0, 0, 1}, phone.setup->localPort()));
    queues.runReady();
    const auto arrived = host.quic.receive();
    ASSERT_EQ(arrived.size(), 1u);
    EXPECT_EQ(arrived[0].source.port, host.setup->localPort());
    EXPECT_EQ(arrived[0].bytes.size(), 1'350u);

    phone.setup.reset();
    queues.advance(30s);
    host.setup->networkChanged();
    queues.advance(30s);
    EXPECT_TRUE(host.setup->label());
}

TEST_F(PathSetupTest, saysWhyThereIsNoPath)
{
    const struct {
        const char* name;
        std::function<void(End&)> happens;
        const char* text;
    } cases[] = {
        {"nobody answers", [this](End&) { queues.advance(15s); }, "no path to the peer within 15 s"},
        {"the peer gives up", [](End& end) { end.inbox->deliver({{"error", "Mac 这边建立路径失败"}}); },
            "Mac 这边建立路径失败"},
        {"the peer gives up in odd words", [](End& end) { end.inbox->deliver({{"error", {1, 2}}}); },
            "the peer gave up"},
        {"the peer leaves", [](End& end) { end.inbox->fail({"the phone left before the path was up"}); },
            "the phone left before the path was up"},
    };
    for (const auto& [name, happens, text] : cases) {
        SCOPED_TRACE(name);
        End end;
        open(end);
        start(end, nobody());
        queues.advance(14s);
        EXPECT_FALSE(end.outcome);
        happens(end);
        queues.runReady();
        EXPECT_THAT(failure(end), HasSubstr(text));
    }
}

// The peer, played by the test, answers checks at an address of this machine and behind our relay.
TEST_F(PathSetupTest, breaksTheRelayThatIsInUseOnceOneIs)
{
    const auto own = hostCandidates(1);
    if (own.empty()) GTEST_SKIP() << "no network interface here but loopback";
    std::vector<std::string> warnings;
    Log::observe([&](LogLevel level, std::string_view, std::string_view text) {
        if (level == LogLevel::warning) warnings.emplace_back(text);
    });
    const ScriptedRelay relay;
    const PathCredentials peer = PathCredentials::random();
    const auto behindRelay = SocketAddress::ipv4({203, 0, 113, 1}, 7'000);
    const QueueRef queue = queues.makeQueue("peer");
    auto direct = *UDPSocket::open(own[0].address.hostText(), 0, queue);
    names = {{"relay", {relay.address}}};
    open(host, {.breakAfter = 1s}, {.stun = {}, .turn = {{"relay", 3478}}});
    const auto local = host.setup->local();
    const PathCredentials remote{local.ufrag, local.password};
    bool isDirect = true;
    direct->onReceive = [&](ByteView check, const SocketAddress& source) {
        const auto answer = ConnectivityCheck::answer(check, source, peer, remote);
        if (answer && isDirect) direct->send(*answer, source);
    };
    const auto relaying = queue->every(10ms, [&] {
        for (const auto& [bytes, source] : relay.receive()) {
            if (const auto data = ChannelData::parse(bytes)) {
                if (const auto answer = ConnectivityCheck::answer(data->payload, relay.relayed, peer, remote))
                    relay.send(ChannelData::frame(data->channel, *answer), source);
            } else if (const auto request = StunMessage::parse(bytes)) {
                const ScriptedRelay::Request asked{*request, bytes, source};
                request->attribute(ScriptedRelay::Type::username) ? relay.accept(asked)
                                                                  : relay.challenge(asked);
            }
        }
    });
    start(host, {peer.ufrag, peer.password, {{direct->localAddress(), "host"}, {behindRelay, "srflx"}}}, {},
        relay.credentials);
    queues.advance(5s);
    EXPECT_THAT(failure(host), "none");
    EXPECT_THAT(host.setup->label().value_or("none"), HasSubstr("direct "));
    EXPECT_TRUE(warnings.empty());
    isDirect = false;
    queues.advance(5s);
    EXPECT_EQ(host.setup->label(), "relay relay");
    EXPECT_EQ(warnings, std::vector<std::string>{"test: dropping everything sent through relay relay"});
    Log::observe({});
}

TEST_F(PathSetupTest, sendsNothingMoreOnceItHasFailed)
{
    const auto own = hostCandidates(1);
    if (own.empty()) GTEST_SKIP() << "no network interface here but loopback";
    const RawUDP relay;
    names = {{"relay", {relay.address}}};
    const QueueRef queue = queues.makeQueue("dev.pelorin.path");
    auto peer = *UDPSocket::open(own[0].address.hostText(), 0, queue);
    int checks = 0;
    peer->onReceive = [&](ByteView, const SocketAddress&) { ++checks; };
    PathDescription remote = nobody();
    remote.candidates.push_back({peer->localAddress(), "host"});
    open(host, {}, {.stun = {{"relay", 3478}}, .turn = {{"relay", 3478}}});
    start(host, remote, {}, TurnCredentials{"user", "password"});
    queues.advance(15s);
    EXPECT_THAT(failure(host), HasSubstr("no path to the peer within 15 s"));
    EXPECT_GT(checks, 0);
    EXPECT_FALSE(relay.receive().empty());

    checks = 0;
    host.inbox->deliver({{"candidates", {remote.candidates[0].json()}}});
    host.setup->networkChanged();
    host.setup->renewCredentials({"user", "other"});
    queues.advance(10min);
    EXPECT_EQ(checks, 0);
    EXPECT_TRUE(relay.receive().empty());
    EXPECT_FALSE(host.setup->label());
    EXPECT_TRUE(UDPSocket::open("127.0.0.1", host.setup->localPort(), queue).has_value());
}

TEST_F(PathSetupTest, learnsItsAddressFromWhicheverSTUNServerAnswers)
{
    const RawUDP silent;
    const RawUDP living;
    const Candidate reflexive{SocketAddress::ipv4({203, 0, 113, 7}, 51'820), "srflx"};
    names = {
        {"half", {silent.address, living.address}}, {"whole", {living.address}}, {"dead", {silent.address}}};
    const struct {
        std::vector<PathServers::Server> stun;
        bool isLearned;
    } rows[] = {{{{"half", 3478}}, true}, {{{"nameless", 3478}, {"whole", 3478}}, true},
        {{{"dead", 3478}, {"whole", 3478}}, true}, {{{"dead", 3478}}, false}, {{{"nameless", 3478}}, false}};
    for (const auto& [stun, isLearned] : rows) {
        SCOPED_TRACE(stun.front().host);
        End end;
        open(end, {}, {.stun = stun, .turn = {}});
        int gathered = 0;
        end.setup->gather(1min, [&] { ++gathered; });
        queues.runReady();
        for (const auto& [request, source] : living.receive()) {
            auto answer = *StunMessage::parse(request);
            answer.messageClass = StunMessage::Class::success;
            answer.attributes.push_back(StunMessage::xorAddressAttribute(
                StunMessage::AttributeType::xorMappedAddress, reflexive.address, answer.transactionID));
            living.send(answer.serialize(), source);
        }
        queues.runReady();
        EXPECT_EQ(gathered == 1, isLearned || stun.front().host == "nameless");
        queues.advance(10s);
        EXPECT_EQ(gathered, 1);
        const auto candidates = end.setup->local().candidates;
        EXPECT_EQ(std::ranges::count(candidates, reflexive), isLearned ? 1 : 0);
        living.receive();
    }
}

TEST_F(PathSetupTest, tellsNoAddressOfOursWhenEverythingIsToBeRelayed)
{
    open(host, {.forceTurn = true, .breakAfter = {}});
    EXPECT_TRUE(host.setup->local().candidates.empty());
    bool isGathered = false;
    host.setup->gather(100ms, [&] { isGathered = true; });
    queues.runReady();
    EXPECT_TRUE(isGathered);
    json told;
    host.setup->start(nobody(), {}, {[&](json message) { told.push_back(std::move(message)); }, host.inbox},
        [](const auto&) {});
    queues.advance(16s);
    EXPECT_TRUE(told.empty()) << told;
}

TEST_F(PathSetupTest, tellsNobodyWhatWasGatheredOnceItIsGone)
{
    for (const bool isForced : {false, true}) {
        open(host, {.forceTurn = isForced, .breakAfter = {}});
        bool isTold = false;
        host.setup->gather(100ms, [&] { isTold = true; });
        host.setup.reset();
        queues.advance(1s);
        EXPECT_FALSE(isTold);
    }
}

TEST_F(PathSetupTest, keepsWithinBoundsWhateverIsSignalled)
{
    RawUDP victim({127, 0, 0, 2});
    open(host);
    start(host, nobody(), nullptr);
    const json odd[] = {nullptr, 7, "x", json::array(), {{"candidates", nullptr}}, {{"candidates", "x"}},
        {{"candidates", {{"ip", 1}}}}, {{"candidates", json::array({nullptr, 7, "x", json::object()})}},
        {{"candidates",
            json::array({{{"ip", "127.0.0.2"}, {"port", victim.address.port}, {"type", "host"}}})}},
        {{"candidates",
            json::array({{{"ip", "127.0.0.2"}, {"port", victim.address.port}, {"type", "relay"}}})}}};
    for (const json& message : odd) host.inbox->deliver(message);
    for (int i = 0; i < 10'000; ++i)
        host.inbox->deliver({{"candidates",
            json::array({{{"ip", "192.0.2.1"}, {"port", 1 + i}, {"type", i % 2 ? "srflx" : "relay"}}})}});
    for (int i = 0; i < 100; ++i) queues.advance(50ms);
    EXPECT_TRUE(victim.receive().empty());
    EXPECT_FALSE(host.outcome);
}

TEST_F(PathSetupTest, readsItsSwitches)
{
    const struct {
        const char* force;
        const char* breakAfter;
        bool isForced;
        std::optional<std::chrono::seconds> breaks;
    } rows[] = {{nullptr, nullptr, false, {}}, {"", "", false, {}}, {"0", "0", false, 0s},
        {"1", "5", true, 5s}, {"yes", "-1", true, {}}, {"1", "5x", true, {}}, {"1", "99999999999", true, {}}};
    for (const auto& row : rows) {
        row.force ? setenv("PELORIN_FORCE_TURN", row.force, 1) : unsetenv("PELORIN_FORCE_TURN");
        row.breakAfter ? setenv("PELORIN_TEST_BREAK_AFTER", row.breakAfter, 1)
                       : unsetenv("PELORIN_TEST_BREAK_AFTER");
        const auto switches = PathSetup::Switches::fromEnvironment();
        EXPECT_EQ(switches.forceTurn, row.isForced);
        EXPECT_EQ(switches.breakAfter, row.breaks);
    }
    unsetenv("PELORIN_FORCE_TURN");
    unsetenv("PELORIN_TEST_BREAK_AFTER");
}

TEST(SignalInbox, givesEachMessageToTheFirstWhoWaitsForItsKey)
{
    ManualQueues queues;
    const auto queue = queues.makeQueue("waiter");
    SignalInbox inbox;
    std::vector<std::string> story;
    const auto wait = [&](const char* key) {
        inbox.next(key, queue, [&story, key](const Result<json, NetError>& message) {
            story.push_back(
                std::string(key) + " " + (message ? message->dump() : message.error().description));
        });
    };
    inbox.deliver({{"a", 1}});
    inbox.deliver({{"b", 2}});
    wait("b");
    wait("c");
    wait("a");
    inbox.deliver({{"c", 3}, {"a", 4}});
    wait("c");
    wait("a");
    inbox.deliver({{"a", 5}});
    EXPECT_TRUE(story.empty()); // nobody is called from within a call
    queues.runReady();
    inbox.fail({"gone"});
    inbox.fail({"gone again"});
    wait("late");
    queues.runReady();
    EXPECT_THAT(story,
        testing::ElementsAre(
            R"(b {"b":2})", R"(a {"a":1})", R"(c {"a":4,"c":3})", R"(a {"a":5})", "c gone", "late gone"));
}

} // namespace
} // namespace pelorin
