// A relay, or who poses as one, answers a client's requests in any way and order. Whatever it sends: a
// request ends once, nothing unsigned counts for a client that has signed, and the client sends no more than
// its table of repetitions allows. The input is a script, a byte for the step and what the step needs.

#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Queue/ManualQueues.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Type = StunMessage::AttributeType;
using Class = StunMessage::Class;

const TurnCredentials credentials{"user", "password"};
const SocketAddress ours = SocketAddress::ipv4({192, 0, 2, 1}, 50'000);
const SocketAddress relays[]
    = {SocketAddress::ipv4({192, 0, 2, 2}, 3'478), SocketAddress::ipv4({192, 0, 2, 3}, 3'478)};
const SocketAddress stranger = SocketAddress::ipv4({192, 0, 2, 4}, 3'478);
constexpr std::size_t mostSendsPerRequest = 3 * 4 * std::size(relays); // attempts, repetitions, addresses

class Script {
public:
    Script(const std::uint8_t* data, std::size_t size) : rest(data, size) {}
    bool isAtEnd() const { return rest.empty(); }
    std::uint8_t byte()
    {
        if (rest.empty()) return 0;
        const auto first = rest[0];
        rest = rest.subspan(1);
        return first;
    }
    ByteView bytes(std::size_t count)
    {
        const auto taken = rest.first(std::min(count, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }

private:
    ByteView rest;
};

// Keeps what the client sends.
struct ScriptedSocket final : UDPSocket {
    explicit ScriptedSocket(std::vector<Bytes>& newSent) : sent(newSent) {}
    void send(ByteView datagram, const SocketAddress&) override
    {
        sent.emplace_back(datagram.begin(), datagram.end());
    }
    void enqueue(ByteView head, ByteView body, ByteView tail, const SocketAddress&) override
    {
        const Bytes framed = ChannelData::frame(std::uint16_t(head[0] << 8 | head[1]), body);
        require(framed.size() == head.size() + body.size() + tail.size(), "data is framed whole");
    }
    void flush() override {}
    std::uint64_t lostSends() const override { return 0; }
    const SocketAddress& localAddress() const override { return ours; }
    void close() override {}

    std::vector<Bytes>& sent;
};

class Session {
public:
    Session()
    {
        client = std::make_unique<TurnClient>(std::make_unique<ScriptedSocket>(sent),
            std::vector(std::begin(relays), std::end(relays)), credentials, queue);
        client->onChannelData = [](std::uint16_t channel, ByteView) {
            require(ChannelData::channelRange.contains(channel), "a channel");
        };
    }

    void run(Script script)
    {
        while (!script.isAtEnd() && sent.size() < 2'000) step(script);
        queues.advance(3 * 7'500ms);
        require(ended == started, "every request ends by its last timeout");
        require(sent.size() <= started * mostSendsPerRequest, "repetitions are limited");
        for (const Bytes& each : sent)
            require(StunMessage::parse(each).has_value(), "we send what can be read");
        client.reset();
    }

private:
    void step(Script& script)
    {
        switch (script.byte() % 6) {
        case 0:
            return request(script.byte());
        case 1:
            return answer(script);
        case 2:
            return deliver(script.bytes(script.byte() * 8u), relays[script.byte() % 2]);
        case 3:
            return queues.advance(script.byte() * 50ms);
        case 4:
            client->send(std::uint16_t(0x4000 + script.byte()), script.bytes(script.byte()));
            return;
        case 5:
            if (!sent.empty()) deliver(sent[script.byte() % sent.size()], relays[script.byte() % 2]);
            return;
        }
    }

    void request(std::uint8_t method)
    {
        ++started;
        const auto done = [this, isOver = std::make_shared<bool>()](const auto& result) {
            require(!std::exchange(*isOver, true), "a request ends once");
            require(result || !result.error().description.empty(), "a failure has a reason");
            ++ended;
        };
        switch (method % 4) {
        case 0:
            return client->allocate(done);
        case 1:
            return client->refresh(done);
        case 2:
            return client->createPermission(ours, done);
        case 3:
            return client->channelBind(*SocketAddress::parse("2001:db8::1", 7), 0x4001, done);
        }
    }

    // To a request of ours, newest first, with attributes from the script.
    void answer(Script& script)
    {
        if (sent.empty()) return;
        const std::size_t age = script.byte() % sent.size();
        const auto asked = *StunMessage::parse(sent[sent.size() - 1 - age]);
        const std::uint8_t kind = script.byte();
        const bool isSuccess = kind & 1, isSigned = kind & 2, isFromStranger = kind & 4;
        StunMessage response{
            asked.method, isSuccess ? Class::success : Class::error, asked.transactionID, {}};
        if (kind & 8) response.attributes.emplace_back(Type::errorCode, Bytes{0, 0, 4, script.byte()});
        for (int count = script.byte() % 4; count > 0; --count) {
            constexpr std::uint16_t types[]
                = {Type::realm, Type::nonce, Type::xorRelayedAddress, Type::xorMappedAddress, Type::errorCode,
                    Type::lifetime, Type::messageIntegrity, Type::software};
            const auto type = types[script.byte() % std::size(types)];
            const auto value = script.bytes(script.byte() * (kind & 16 ? 8u : 1u));
            response.attributes.emplace_back(type, Bytes(value.begin(), value.end()));
        }

        const auto realm = asked.attribute(Type::realm);
        const bool wasSigned = realm.has_value();
        const std::string realmText = wasSigned ? std::string(realm->begin(), realm->end()) : "";
        const auto key = StunMessage::longTermKey(credentials.username, realmText, credentials.credential);
        const auto endedBefore = ended;
        const auto verifiedBefore = client->verifiedResponses();
        deliver(isSigned ? response.serialize(key) : response.serialize(),
            isFromStranger ? stranger : relays[kind >> 5 & 1]);
        if (isFromStranger || (isSuccess && wasSigned && !isSigned))
            require(ended == endedBefore && client->verifiedResponses() == verifiedBefore,
                "only the relay's own successes count");
    }

    void deliver(ByteView datagram, const SocketAddress& source)
    {
        const bool isTaken = client->handle(datagram, source);
        require(source != stranger || !isTaken, "a stranger's datagrams are others' business");
        queues.runReady();
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("dev.pelorin.path");
    std::vector<Bytes> sent;
    std::size_t started = 0, ended = 0;
    std::unique_ptr<TurnClient> client;
};

} // namespace
} // namespace pelorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    pelorin::Session().run({data, size});
    return 0;
}
