#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Rendezvous/RendezvousSocket.h"
#include "Tests/Lab/NatsServer.h"
#include "Tests/Lab/RendezvousService.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <csignal>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

using namespace pelorin;
using nlohmann::json;

namespace {

// A host or a phone at one node, on a socket as the real ones have.
class Peer {
public:
    Peer(PoolHarness& newHarness, const lab::RendezvousService& node, const std::string& path)
        : harness(newHarness),
          queue(harness.makeQueue())
    {
        std::optional<bool> isOpen;
        harness.runOn(queue, [&] {
            socket = rendezvousSockets(harness.pool)(queue, *rendezvousURL(node.url(), path));
            socket->onEnd = [this](const NetError&) { hasEnded = true; };
            socket->open([&](const Result<void, NetError>& result) { isOpen = result.has_value(); });
        });
        harness.waitUntil(queue, [&] { return isOpen.has_value(); });
        EXPECT_EQ(isOpen, true) << path;
    }
    ~Peer()
    {
        harness.runOn(queue, [this] { socket.reset(); });
    }

    json next()
    {
        std::optional<json> message;
        harness.runOn(queue, [&] {
            socket->next("type", std::chrono::seconds(20), [&](Result<json, NetError> result) {
                message = result ? *result : json(result.error().description);
            });
        });
        harness.waitUntil(queue, [&] { return message.has_value(); });
        return message.value_or("nothing");
    }
    void say(const json& message)
    {
        harness.runOn(queue, [&] { socket->send(message); });
    }
    bool ends()
    {
        return harness.waitUntil(queue, [this] { return hasEnded; });
    }

private:
    PoolHarness& harness;
    QueueRef queue;
    std::unique_ptr<RendezvousSocket> socket;
    bool hasEnded = false;
};

// Three nodes at a real broker.
class ClusterProgram : public testing::Test {
protected:
    ClusterProgram()
    {
        for (auto& node : nodes) {
            lab::RendezvousService::Options options;
            options.more = {"--cluster", broker.url(), "--requests-per-minute", "100000"};
            node = std::make_unique<lab::RendezvousService>(options);
        }
        for (const auto& node : nodes) EXPECT_TRUE(said(*node, "The broker is in reach"));
    }

    static bool said(const lab::RendezvousService& node, const std::string& text, int times = 1)
    {
        return lab::eventually([&] {
            const std::string log = node.log();
            int found = 0;
            for (auto at = log.find(text); at != log.npos; at = log.find(text, at + 1)) ++found;
            return found >= times;
        });
    }
    std::string hostID() const { return KeyFingerprint::hostID(key.publicKey()); }
    std::unique_ptr<Peer> hostAt(std::size_t node)
    {
        auto host = std::make_unique<Peer>(harness, *nodes.at(node), "v1/host");
        const std::string nonce = host->next().value("nonce", "");
        const std::string text = fmt::format("pelorin-host-v1|{}|{}", hostID(), nonce);
        host->say({{"type", "register"}, {"publicKey", base64EncodedString(key.publicKey())},
            {"signature", base64EncodedString(key.signRaw(Bytes(text.begin(), text.end())).value())},
            {"name", "Studio"}});
        EXPECT_EQ(host->next()["type"], "registered");
        return host;
    }
    // Also that the node learns so in the end.
    std::unique_ptr<Peer> phoneAt(std::size_t node)
    {
        std::unique_ptr<Peer> phone;
        EXPECT_TRUE(lab::eventually([&] {
            phone = std::make_unique<Peer>(harness, *nodes.at(node), "v1/connect/" + hostID());
            return phone->next() == json{{"type", "hello"}, {"online", true}};
        }));
        return phone;
    }
    static std::string connect(Peer& phone, Peer& host) // the session
    {
        phone.say({{"type", "connect"}, {"request", {{"nonce", 7}}}});
        json asked = host.next();
        EXPECT_EQ(asked["type"], "connect") << asked;
        host.say({{"type", "accept"}, {"session", asked["session"]}, {"response", json::object()}});
        EXPECT_EQ(phone.next()["type"], "accept");
        return asked["session"];
    }

    PoolHarness harness;
    lab::NatsServer broker;
    std::array<std::unique_ptr<lab::RendezvousService>, 3> nodes;
    const SigningKey key = SigningKey::generate().value();
};

} // namespace

TEST_F(ClusterProgram, carriesASessionBetweenNodes)
{
    const auto host = hostAt(0), phone = phoneAt(1);
    const std::string session = connect(*phone, *host);
    for (int i = 0; i < 50; ++i) {
        phone->say({{"type", "signal"}, {"data", {{"n", i}}}});
        host->say({{"type", "signal"}, {"session", session}, {"data", {{"n", i}}}});
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(host->next(), (json{{"type", "signal"}, {"session", session}, {"data", {{"n", i}}}}));
        EXPECT_EQ(phone->next(), (json{{"type", "signal"}, {"data", {{"n", i}}}}));
    }
    // As the host moves, so do those who look for it.
    const auto moved = hostAt(2);
    EXPECT_TRUE(host->ends());
    EXPECT_EQ(phone->next()["type"], "closed");
    const auto again = phoneAt(1);
    connect(*again, *moved);
}

TEST_F(ClusterProgram, endsTheSessionsOfANodeThatIsKilled)
{
    auto host = hostAt(0);
    const auto phone = phoneAt(1);
    connect(*phone, *host);
    nodes[0]->process().signal(SIGKILL);
    EXPECT_EQ(phone->next()["type"], "closed");
    EXPECT_TRUE(phone->ends());
    host = hostAt(2);
    const auto again = phoneAt(1);
    const std::string session = connect(*again, *host);
    nodes[1]->process().signal(SIGKILL);
    EXPECT_EQ(host->next(), (json{{"type", "closed"}, {"session", session}}));
}

TEST_F(ClusterProgram, outlivesItsBroker)
{
    const auto host = hostAt(0), local = phoneAt(0), remote = phoneAt(1);
    const std::string session = connect(*local, *host);
    const std::string lost = connect(*remote, *host);
    broker.kill();
    EXPECT_EQ(remote->next()["type"], "closed");
    EXPECT_EQ(host->next(), (json{{"type", "closed"}, {"session", lost}}));
    Peer late(harness, *nodes[2], "v1/connect/" + hostID());
    EXPECT_EQ(late.next(), (json{{"type", "hello"}, {"online", false}}));
    local->say({{"type", "signal"}, {"data", {{"n", 1}}}});
    EXPECT_EQ(host->next(), (json{{"type", "signal"}, {"session", session}, {"data", {{"n", 1}}}}));
    const auto another = phoneAt(0);
    connect(*another, *host);

    broker.startAgain();
    for (const auto& node : nodes) EXPECT_TRUE(said(*node, "The broker is in reach", 2));
    const auto again = phoneAt(2);
    connect(*again, *host);
    for (const auto& node : nodes) EXPECT_TRUE(said(*node, "The broker is lost"));
}
