#include "PelorinNet/Path/TurnClient.h"

#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/PelorinNet/ScriptedRelay.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Method = StunMessage::Method;
using Class = StunMessage::Class;
using AttributeType = StunMessage::AttributeType;
using Key = std::array<std::uint8_t, 16>;

const SocketAddress peer = SocketAddress::ipv4({192, 0, 2, 77}, 4'242);

std::string textOf(const StunMessage& message, std::uint16_t type)
{
    const auto value = message.attribute(type).value_or(ByteView{});
    return {value.begin(), value.end()};
}

class TurnClientTest : public testing::Test {
protected:
    TurnClientTest() { makeClient({relay.address}); }

    void makeClient(std::vector<SocketAddress> candidates)
    {
        auto socket = *UDPSocket::open("127.0.0.1", 0, queue);
        local = socket->localAddress();
        client = std::make_unique<TurnClient>(
            std::move(socket), std::move(candidates), relay.credentials, queue);
    }

    // What the client asks of the relay by now.
    std::vector<ScriptedRelay::Request> requests()
    {
        queues.runReady();
        return relay.received();
    }
    ScriptedRelay::Request request()
    {
        auto all = requests();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? ScriptedRelay::Request{} : all.front();
    }

    // Each request ends here: with nothing, the relayed address, or the text of the failure.
    void note(const std::string& outcome) { outcomes.push_back(outcome); }
    void startAllocate()
    {
        client->allocate([this](const Result<SocketAddress, NetError>& result) {
            note(result ? result->text() : result.error().description);
        });
    }
    TurnClient::Done noting()
    {
        return
            [this](const Result<void, NetError>& result) { note(result ? "" : result.error().description); };
    }
    void start(Method method)
    {
        switch (method) {
        case Method::allocate:
            return startAllocate();
        case Method::refresh:
            return client->refresh(noting());
        case Method::createPermission:
            return client->createPermission(peer, noting());
        default:
            return client->channelBind(peer, 0x4003, noting());
        }
    }
    std::vector<std::string> takeOutcomes()
    {
        queues.runReady();
        return std::exchange(outcomes, {});
    }

    void allocate()
    {
        startAllocate();
        relay.challenge(request());
        relay.accept(request());
        ASSERT_EQ(takeOutcomes(), std::vector{relay.relayed.text()});
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    ScriptedRelay relay;
    SocketAddress local;
    std::unique_ptr<TurnClient> client;
    std::vector<std::string> outcomes;
};

using Outcomes = std::vector<std::string>;

TEST_F(TurnClientTest, allocatesWithTheCredentialsThatTheRelayAsksFor)
{
    startAllocate();
    const auto first = request();
    EXPECT_EQ(first.message.method, Method::allocate);
    EXPECT_EQ(first.message.attributes,
        (std::vector<StunMessage::Attribute>{{AttributeType::requestedTransport, Bytes{17, 0, 0, 0}},
            {AttributeType::lifetime, Bytes{0, 0, 0x02, 0x58}}}));

    relay.challenge(first);
    const auto second = request();
    EXPECT_NE(second.message.transactionID, first.message.transactionID);
    EXPECT_EQ(textOf(second.message, AttributeType::username), relay.credentials.username);
    EXPECT_EQ(textOf(second.message, AttributeType::realm), relay.realm);
    EXPECT_EQ(textOf(second.message, AttributeType::nonce), relay.nonce);
    EXPECT_EQ(textOf(second.message, AttributeType::requestedTransport), std::string("\x11\0\0\0", 4));
    EXPECT_TRUE(StunMessage::verifyIntegrity(second.bytes, relay.key()));
    EXPECT_EQ(client->verifiedResponses(), 0u);

    relay.accept(second);
    EXPECT_EQ(takeOutcomes(), Outcomes{relay.relayed.text()});
    EXPECT_EQ(client->relayed(), relay.relayed);
    EXPECT_EQ(client->mapped(), relay.mapped);
    EXPECT_EQ(client->verifiedResponses(), 1u);
}

TEST_F(TurnClientTest, saysWhatItWantsOfAnAllocation)
{
    allocate();
    const struct {
        Method method;
        std::uint16_t attribute;
        std::string value;
        std::optional<SocketAddress> peer;
    } rows[] = {
        {Method::refresh, AttributeType::lifetime, {"\0\0\x02\x58", 4}, {}},
        {Method::channelBind, AttributeType::channelNumber, {"\x40\x03\0\0", 4}, peer},
        {Method::createPermission, AttributeType::lifetime, "", peer},
    };
    for (const auto& row : rows) {
        start(row.method);
        const auto asked = request();
        EXPECT_EQ(asked.message.method, row.method);
        EXPECT_EQ(textOf(asked.message, row.attribute), row.value);
        EXPECT_EQ(asked.message.xorAddress(AttributeType::xorPeerAddress), row.peer);
        EXPECT_TRUE(StunMessage::verifyIntegrity(asked.bytes, relay.key()));
        relay.accept(asked);
        EXPECT_EQ(takeOutcomes(), Outcomes{""});
    }
}

TEST_F(TurnClientTest, asksFourTimesAndIsContentWithAnyAnswer)
{
    const Duration sendTimes[] = {0ms, 500ms, 1'500ms, 3'500ms};
    for (std::size_t answered = 0; answered < std::size(sendTimes); ++answered) {
        SCOPED_TRACE(answered);
        const auto began = queues.now();
        startAllocate();
        for (std::size_t i = 0; i <= answered; ++i) {
            queues.advance(began + sendTimes[i] - queues.now() - (i ? 1ms : 0ms));
            if (i) {
                EXPECT_TRUE(requests().empty()) << "too early";
                queues.advance(1ms);
            }
            const auto sent = request();
            if (i == answered) relay.refuse(sent, 508, "Insufficient Capacity");
        }
        EXPECT_EQ(takeOutcomes(), Outcomes{"allocate failed: 508 Insufficient Capacity"});
        queues.advance(10s);
        EXPECT_TRUE(requests().empty()) << "an answered request is not sent again";
        makeClient({relay.address});
    }
}

TEST_F(TurnClientTest, givesASilentRelayUpAfterSevenAndAHalfSeconds)
{
    allocate();
    const std::pair<Method, std::string> rows[] = {{Method::allocate, "allocate timed out"},
        {Method::refresh, "refresh timed out"}, {Method::createPermission, "createPermission timed out"},
        {Method::channelBind, "channelBind timed out"}};
    for (const auto& [method, text] : rows) {
        start(method);
        queues.advance(7'499ms);
        EXPECT_EQ(takeOutcomes(), Outcomes{});
        const auto sent = requests();
        ASSERT_EQ(sent.size(), 4u);
        EXPECT_TRUE(std::ranges::all_of(sent, [&](const auto& each) { return each.bytes == sent[0].bytes; }));
        queues.advance(1ms);
        EXPECT_EQ(takeOutcomes(), Outcomes{text});
        relay.accept(sent[0]);
        EXPECT_EQ(takeOutcomes(), Outcomes{}) << "an answer that comes too late is none";
    }
}

TEST_F(TurnClientTest, triesThreeTimesWhileItIsChallenged)
{
    for (const int code : {401, 438})
        for (const auto& [method, name] :
            {std::pair(Method::allocate, "allocate"), std::pair(Method::channelBind, "channelBind")}) {
            SCOPED_TRACE(fmt::format("{} {}", name, code));
            start(method);
            for (int attempt = 0; attempt < 3; ++attempt) {
                EXPECT_EQ(takeOutcomes(), Outcomes{});
                relay.nonce = fmt::format("nonce-{}-{}", code, attempt);
                relay.challenge(request(), code);
            }
            EXPECT_EQ(takeOutcomes(),
                Outcomes{fmt::format(
                    "{} failed: {}", name, code == 401 ? "401 Unauthorized" : "438 Stale Nonce")});
            queues.advance(1min);
            EXPECT_TRUE(requests().empty());
        }
}

TEST_F(TurnClientTest, goesOnWithTheNonceThatReplacedAStaleOne)
{
    allocate();
    relay.nonce = "nonce-2";
    start(Method::refresh);
    relay.challenge(request(), 438);
    const auto again = request();
    EXPECT_EQ(textOf(again.message, AttributeType::nonce), "nonce-2");
    relay.accept(again);
    EXPECT_EQ(takeOutcomes(), Outcomes{""});

    relay.realm = "moved.example"; // which changes the key
    start(Method::channelBind);
    relay.challenge(request(), 401);
    relay.accept(request());
    EXPECT_EQ(takeOutcomes(), Outcomes{""});
    EXPECT_EQ(client->verifiedResponses(), 3u);
}

TEST_F(TurnClientTest, failsWhereAChallengeCannotBeMet)
{
    const std::pair<std::string, std::string> rows[]
        = {{"", "nonce"}, {"realm", ""}, {std::string(764, 'r'), "nonce"}, {"realm", std::string(764, 'n')}};
    for (const auto& [realm, nonce] : rows) {
        makeClient({relay.address});
        relay.realm = realm;
        relay.nonce = nonce;
        startAllocate();
        relay.challenge(request());
        EXPECT_EQ(takeOutcomes(), Outcomes{"allocate failed: 401 Unauthorized"});
        EXPECT_TRUE(requests().empty());
    }

    // One that comes later costs its request and nothing else.
    relay.realm = "relay.example";
    relay.nonce = "nonce-1";
    makeClient({relay.address});
    allocate();
    relay.nonce = std::string(764, 'n');
    start(Method::refresh);
    relay.challenge(request(), 438);
    EXPECT_EQ(takeOutcomes(), Outcomes{"refresh failed: 438 Stale Nonce"});
    start(Method::refresh);
    const auto next = request();
    EXPECT_EQ(textOf(next.message, AttributeType::nonce), "nonce-1");
    EXPECT_TRUE(StunMessage::verifyIntegrity(next.bytes, relay.key()));
}

TEST_F(TurnClientTest, refusesASuccessWithoutARelayedAddress)
{
    startAllocate();
    relay.challenge(request());
    const auto asked = request();
    const StunMessage empty{Method::allocate, Class::success, asked.message.transactionID, {}};
    relay.send(empty.serialize(relay.key()), local);
    EXPECT_EQ(takeOutcomes(), Outcomes{"Allocate succeeded without a relayed address"});
    EXPECT_FALSE(client->relayed());
}

TEST_F(TurnClientTest, waitsOnWhenAnAnswerIsNotTheRelaysToThisRequest)
{
    allocate();
    const RawUDP stranger;
    const Key key = relay.key();
    const Bytes wrongKey{'w', 'r', 'o', 'n', 'g'};
    const struct {
        const char* what;
        Class messageClass = Class::success;
        Method method = Method::refresh;
        ByteView key = {};
        std::uint8_t idFlip = 0;
        std::vector<StunMessage::Attribute> attributes = {};
    } rows[] = {
        {"a success signed with another key", Class::success, Method::refresh, wrongKey},
        {"an unsigned success"},
        {"a refusal signed with another key", Class::error, Method::refresh, wrongKey, 0,
            {ScriptedRelay::errorAttribute(437, "Allocation Mismatch")}},
        {"an error without a code", Class::error, Method::refresh, key},
        {"another method's success", Class::success, Method::allocate, key},
        {"another transaction's success", Class::success, Method::refresh, key, 1},
        {"our own request", Class::request, Method::refresh, key},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        start(Method::refresh);
        const auto asked = request();
        StunMessage forged{row.method, row.messageClass, asked.message.transactionID, row.attributes};
        forged.transactionID[11] ^= row.idFlip;
        relay.send(row.key.empty() ? forged.serialize() : forged.serialize(row.key), local);
        EXPECT_EQ(takeOutcomes(), Outcomes{});
        const auto honest = relay.success(asked);
        stranger.send(honest, local);
        relay.send(ByteView(honest).first(honest.size() / 2), local);
        EXPECT_EQ(takeOutcomes(), Outcomes{});
        relay.accept(asked);
        EXPECT_EQ(takeOutcomes(), Outcomes{""});
    }
}

TEST_F(TurnClientTest, hearsEachAnswerOnce)
{
    startAllocate();
    const auto first = request();
    for (int i = 0; i < 3; ++i) relay.challenge(first);
    const auto second = requests();
    ASSERT_EQ(second.size(), 1u) << "a repeated challenge is answered once";
    for (int i = 0; i < 3; ++i) relay.accept(second[0]);
    relay.refuse(second[0], 437, "Allocation Mismatch");
    EXPECT_EQ(takeOutcomes(), Outcomes{relay.relayed.text()});
}

TEST_F(TurnClientTest, keepsRequestsApartThatRunSideBySide)
{
    allocate();
    client->channelBind(peer, 0x4000, [this](const auto& result) { note(result ? "channel" : "?"); });
    client->refresh([this](const auto& result) { note(result ? "refresh" : result.error().description); });
    client->createPermission(peer, [this](const auto& result) { note(result ? "permission" : "?"); });
    const auto sent = requests();
    ASSERT_EQ(sent.size(), 3u);
    relay.nonce = "nonce-2";
    relay.challenge(sent[0], 438);
    relay.accept(sent[2]);
    EXPECT_EQ(takeOutcomes(), Outcomes{"permission"});
    relay.accept(request());
    EXPECT_EQ(takeOutcomes(), Outcomes{"channel"});
    queues.advance(7'500ms);
    EXPECT_EQ(takeOutcomes(), Outcomes{"refresh timed out"});
}

TEST_F(TurnClientTest, takesAnAnswerUnderTheKeyOfItsRequest)
{
    allocate();
    start(Method::refresh);
    start(Method::channelBind);
    const auto sent = requests();
    ASSERT_EQ(sent.size(), 2u);
    const auto answer = relay.success(sent[1]);
    relay.realm = "moved.example";
    relay.challenge(sent[0], 401);
    relay.accept(request());
    relay.send(answer, local);
    EXPECT_EQ(takeOutcomes(), (Outcomes{"", ""}));
}

TEST_F(TurnClientTest, usesTheFirstOfTheRelaysAddressesThatAnswers)
{
    const ScriptedRelay slower;
    const RawUDP silent;
    makeClient({silent.address, slower.address, relay.address});
    startAllocate();
    const auto asked = request();
    const auto askedOfSlower = slower.received();
    ASSERT_EQ(askedOfSlower.size(), 1u);
    EXPECT_EQ(askedOfSlower[0].bytes, asked.bytes);
    EXPECT_FALSE(client->handle(Bytes(20), SocketAddress::ipv4({127, 0, 0, 1}, 1)));
    EXPECT_TRUE(client->handle(Bytes(20), silent.address));

    relay.challenge(asked);
    slower.challenge(askedOfSlower[0]);
    relay.accept(request());
    EXPECT_EQ(takeOutcomes(), Outcomes{relay.relayed.text()});
    EXPECT_EQ(client->server(), relay.address);
    EXPECT_TRUE(slower.received().empty());
    EXPECT_FALSE(client->handle(Bytes(20), slower.address)) << "it is nobody's now";
}

TEST_F(TurnClientTest, handsRelayedDataOnOnceThereIsAnAllocation)
{
    std::vector<std::pair<std::uint16_t, Bytes>> received;
    client->onChannelData = [&](std::uint16_t channel, ByteView payload) {
        received.emplace_back(channel, Bytes(payload.begin(), payload.end()));
    };
    int batches = 0;
    client->onBatchEnd = [&] { ++batches; };
    const auto deliver = [&](const RawUDP& from, Bytes datagram) {
        received.clear();
        from.send(datagram, local);
        queues.runReady();
        return received;
    };
    const Bytes framed = ChannelData::frame(0x4003, Bytes{1, 2, 3, 4, 5});
    EXPECT_TRUE(deliver(relay, framed).empty()) << "nothing is allocated";
    allocate();

    const RawUDP stranger;
    EXPECT_TRUE(deliver(stranger, framed).empty());
    const std::vector<std::pair<std::uint16_t, Bytes>> expected{{0x4003, {1, 2, 3, 4, 5}}};
    batches = 0;
    EXPECT_EQ(deliver(relay, framed), expected);
    EXPECT_EQ(batches, 1);
    EXPECT_TRUE(deliver(relay, Bytes(framed.begin(), framed.begin() + 8)).empty()) << "cut off";
    EXPECT_TRUE(deliver(relay, Bytes{0x50, 0, 0, 0}).empty()) << "no channel";
    EXPECT_TRUE(deliver(relay, {}).empty());
}

TEST_F(TurnClientTest, givesTheAllocationBackAtItsEnd)
{
    allocate();
    client.reset();
    const auto last = request();
    EXPECT_EQ(last.message.method, Method::refresh);
    EXPECT_EQ(textOf(last.message, AttributeType::lifetime), std::string(4, '\0'));
    EXPECT_TRUE(StunMessage::verifyIntegrity(last.bytes, relay.key()));
    queues.advance(1min);
    EXPECT_TRUE(requests().empty());
}

TEST_F(TurnClientTest, endsAnywhereWithoutAWord)
{
    // Before, while and after it allocates; and from within what it calls.
    startAllocate();
    const auto first = request();
    client.reset();
    EXPECT_TRUE(requests().empty()) << "the relay knows nothing of it";

    makeClient({relay.address});
    startAllocate();
    relay.challenge(request());
    request();
    client.reset();
    EXPECT_EQ(request().message.method, Method::refresh) << "the relay may have allocated already";
    queues.advance(1min);
    EXPECT_EQ(takeOutcomes(), Outcomes{});

    const std::function<void()> endings[] = {
        [&] { relay.accept(request()); },
        [&] { relay.refuse(request(), 486, "Allocation Quota Reached"); },
        [&] { queues.advance(8s); },
    };
    for (const auto& end : endings) {
        makeClient({relay.address});
        client->allocate([this](const auto&) {
            client.reset();
            note("gone");
        });
        relay.challenge(request());
        end();
        EXPECT_EQ(takeOutcomes(), Outcomes{"gone"});
        requests();
    }

    makeClient({relay.address});
    allocate();
    client->onChannelData = [this](std::uint16_t, ByteView) {
        client.reset();
        note("gone");
    };
    relay.send(ChannelData::frame(0x4000, Bytes{1}), local);
    relay.send(ChannelData::frame(0x4000, Bytes{2}), local);
    EXPECT_EQ(takeOutcomes(), Outcomes{"gone"});
}

TEST_F(TurnClientTest, hearsThatTheRelayIsGone)
{
    allocate();
    client->onUnreachable = [this](int errorNumber) {
        client.reset();
        note(std::to_string(errorNumber));
    };
    relay.close();
    client->send(0x4000, Bytes{1});
    EXPECT_EQ(takeOutcomes(), Outcomes{std::to_string(ECONNREFUSED)});
}

} // namespace
} // namespace pelorin
