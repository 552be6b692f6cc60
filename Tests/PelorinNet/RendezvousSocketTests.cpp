#include "PelorinNet/Rendezvous/RendezvousSocket.h"

#include "PelorinNet/Rendezvous/ServiceMessage.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

// A WebSocket server of another family, which does what the test says.
class Peer {
public:
    explicit Peer(const std::vector<std::string>& certificate = {})
    {
        int ends[2];
        require(::pipe2(ends, O_CLOEXEC) == 0, "a pipe");
        input = ends[1];
        std::vector<std::string> command{"setpriv", "--pdeathsig", "KILL", "/usr/bin/python3",
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "pelorin-websocket-peer"};
        command.insert(command.end(), certificate.begin(), certificate.end());
        process = lab::Process::start(command, {}, folder.path() / "log", ends[0]);
        ::close(ends[0]);
        require(has("\n"), ("the WebSocket peer starts:\n" + log()).c_str());
        port = std::stoi(log().substr(5));
    }
    ~Peer() { ::close(input); }

    void say(const std::string& command) const
    {
        require(::write(input, (command + "\n").data(), command.size() + 1) > 0, "the peer listens");
    }
    std::string log() const { return lab::contentOf(folder.path() / "log"); }
    bool has(const std::string& event) const
    {
        return lab::eventually([&] { return log().contains(event); });
    }
    std::string url(const char* scheme = "ws", const char* host = "127.0.0.1") const
    {
        return fmt::format("{}://{}:{}/v1/host", scheme, host, port);
    }

private:
    lab::TemporaryFolder folder;
    std::unique_ptr<lab::Process> process;
    int input = -1;
    int port = 0;
};

class RendezvousSocketTest : public testing::Test {
protected:
    ~RendezvousSocketTest() override
    {
        harness.runOn(queue, [this] { socket.reset(); });
    }

    // How opening ended: empty when it is open.
    std::string open(const std::string& url)
    {
        std::optional<std::string> outcome;
        harness.runOn(queue, [&] {
            heard.clear();
            ends.clear();
            socket = maker(queue, url);
            socket->onEnd = [this](const NetError& reason) { ends.push_back(reason.description); };
            socket->open([&](const Result<void, NetError>& result) {
                outcome = result ? "" : result.error().description;
            });
            EXPECT_FALSE(outcome) << "nobody is called from within a call";
        });
        EXPECT_TRUE(harness.waitUntil(queue, [&] { return outcome.has_value(); }));
        return outcome.value_or("no answer");
    }
    void await(const char* key, std::optional<Duration> timeout = {})
    {
        harness.runOn(queue, [=, this] {
            socket->next(key, timeout, [this](const Result<json, NetError>& message) {
                heard.push_back(message ? message->dump() : message.error().description);
            });
        });
    }
    bool hears(std::size_t count)
    {
        return harness.waitUntil(queue, [&] { return heard.size() >= count; });
    }
    void onQueue(Task task) { harness.runOn(queue, std::move(task)); }
    bool hasEnded() // and may do so any moment
    {
        bool result = false;
        onQueue([&] { result = !ends.empty(); });
        return result;
    }

    PoolHarness harness;
    const QueueRef queue = harness.makeQueue("dev.pelorin.host-agent");
    const RendezvousSocketMaker maker = rendezvousSockets(harness.pool);
    std::unique_ptr<RendezvousSocket> socket;
    std::vector<std::string> heard, ends;
};

TEST_F(RendezvousSocketTest, carriesObjectsBothWays)
{
    const Peer peer;
    ASSERT_EQ(open(peer.url()), "");
    EXPECT_TRUE(peer.has("open /v1/host"));
    onQueue([&] { socket->send({{"type", "register"}, {"name", "书房"}}); });
    EXPECT_TRUE(peer.has(R"(text {"name":"书房","type":"register"})"));
    await("type");
    await("session");
    await("type");
    // The first is nobody's for now, and pong and ping are for the socket alone.
    for (const char* words : {R"({"data":1})", "pong", "ping", R"({"type":"a"})",
             R"({"type":"b","session":"s"})", R"({"type":"c"})"})
        peer.say(std::string("text ") + words);
    EXPECT_TRUE(hears(3));
    EXPECT_TRUE(peer.has("text pong"));
    await("data");
    EXPECT_TRUE(hears(4));
    EXPECT_THAT(heard,
        ElementsAre(R"({"type":"a"})", R"({"session":"s","type":"b"})", R"({"type":"c"})", R"({"data":1})"));
    onQueue([&] { socket->ping(); });
    EXPECT_TRUE(peer.has("text ping"));
}

TEST_F(RendezvousSocketTest, noticesEverySignOfLife)
{
    const Peer peer;
    ASSERT_EQ(open(peer.url()), "");
    SteadyTime before;
    onQueue([&] { before = socket->lastReceived(); });
    peer.say("text pong");
    EXPECT_TRUE(harness.waitUntil(queue, [&] { return socket->lastReceived() > before; }));
    EXPECT_TRUE(heard.empty());
}

TEST_F(RendezvousSocketTest, endsWithWhatWasWrong)
{
    const std::string notAnObject = "rendezvous sent something that isn't a JSON object";
    const struct {
        std::string command, reason;
    } rows[] = {
        {"binary", "rendezvous sent binary data"}, {"text 7", notAnObject}, {"text [{}]", notAnObject},
        {"text {\"a\":1", notAnObject}, {"text PONG", notAnObject},
        {"close 1013 again later", "the service closed the connection (1013 again later)"},
        {"close 1000", "the service closed the connection (1000)"},
        {fmt::format("size {}", ServiceMessage::largest + 1), ""}, {"drop", ""}, // in the system's words
    };
    const Peer peer;
    for (const auto& [command, reason] : rows) {
        SCOPED_TRACE(command);
        ASSERT_EQ(open(peer.url()), "");
        await("type");
        await("other", 1h);
        peer.say(R"(text {"kept":1})");
        peer.say(command);
        ASSERT_TRUE(harness.waitUntil(queue, [&] { return !ends.empty(); }));
        await("type"); // and from now on
        await("kept");
        ASSERT_TRUE(hears(4));
        EXPECT_THAT(ends, ElementsAre(heard[0]));
        EXPECT_THAT(ends, ElementsAre(HasSubstr(reason)));
        EXPECT_THAT(heard, ElementsAre(ends[0], ends[0], ends[0], R"({"kept":1})"));
    }
    ASSERT_EQ(open(peer.url()), "");
    await("type");
    peer.say(fmt::format("size {}", ServiceMessage::largest));
    peer.say(R"(text {"type":"a"})");
    EXPECT_TRUE(hears(1));
    EXPECT_THAT(heard, ElementsAre(R"({"type":"a"})"));
}

TEST_F(RendezvousSocketTest, waitsNoLongerThanAsked)
{
    const Peer peer;
    ASSERT_EQ(open(peer.url()), "");
    await("type", 20ms);
    EXPECT_TRUE(hears(1));
    peer.say(R"(text {"type":"late"})");
    await("type", 1h);
    EXPECT_TRUE(hears(2));
    EXPECT_THAT(heard, ElementsAre("timed out", R"({"type":"late"})"));
    EXPECT_FALSE(hasEnded());
}

TEST_F(RendezvousSocketTest, closesInOrderAfterWhatItSaid)
{
    const Peer peer;
    for (const bool isDestroyed : {false, true}) {
        ASSERT_EQ(open(peer.url()), "");
        await("type");
        onQueue([&] {
            for (int i = 0; i < 100; ++i) socket->send({{"n", i + (isDestroyed ? 100 : 0)}});
            isDestroyed ? socket.reset() : socket->close();
        });
        EXPECT_TRUE(peer.has(isDestroyed ? "{\"n\":199}\nclosed 1000" : "{\"n\":99}\nclosed 1000"));
        EXPECT_TRUE(heard.empty()) << heard[0];
        EXPECT_FALSE(hasEnded());
    }
}

// A service that floods has to wait, and one that takes nothing is given up.
TEST_F(RendezvousSocketTest, holdsOnlySoMuch)
{
    const Peer peer;
    ASSERT_EQ(open(peer.url()), "");
    for (int i = 0; i < 200; ++i) peer.say(fmt::format(R"(text {{"n":{}}})", i));
    await("n");
    EXPECT_TRUE(hears(1));
    for (int i = 1; i < 200; ++i) await("n");
    EXPECT_TRUE(hears(200));
    EXPECT_EQ(heard.back(), R"({"n":199})");
    onQueue([&] {
        const json large{{"data", std::string(60'000, 'x')}};
        for (int i = 0; i < 300; ++i) socket->send(large);
    });
    EXPECT_TRUE(harness.waitUntil(queue, [&] { return !ends.empty(); }));
    EXPECT_THAT(ends, ElementsAre("the service takes no more messages"));
}

TEST_F(RendezvousSocketTest, saysWhyItDoesNotOpen)
{
    const Peer peer;
    const std::string url = peer.url();
    const struct {
        std::string url, reason;
    } rows[] = {
        {"ws://127.0.0.1:1/v1/host", "Connection refused"},
        {"ws://no-such-service.invalid/v1/host", "no address known of no-such-service.invalid"},
        {"http://127.0.0.1/v1/host", "no address of a service: http://127.0.0.1/v1/host"},
        {"ws://[::1/x", "no address of a service"}, {"ws://127.0.0.1:65536/x", "no address of a service"},
        {"ws://127.0.0.1", "no address of a service"}, {"wss" + url.substr(2), ""}, // no TLS there
    };
    for (const auto& [address, reason] : rows) {
        SCOPED_TRACE(address);
        const std::string outcome = open(address);
        EXPECT_NE(outcome, "");
        EXPECT_THAT(outcome, HasSubstr(reason));
        await("type");
        EXPECT_TRUE(hears(1));
        EXPECT_THAT(heard, ElementsAre(outcome));
        EXPECT_FALSE(hasEnded()) << "it never was open";
    }
}

TEST_F(RendezvousSocketTest, mayBeDestroyedAtAnyMoment)
{
    const Peer peer;
    for (int i = 0; i < 30; ++i) {
        onQueue([&] {
            socket = maker(queue, i % 3 ? peer.url() : "ws://no-such-service.invalid/x");
            socket->next("type", 1h, [](const auto&) { ADD_FAILURE() << "called after the end"; });
            socket->open([&](const auto&) { socket.reset(); });
            if (i % 2) socket->close();
        });
        if (i % 2) onQueue([&] { socket.reset(); });
        EXPECT_TRUE(harness.waitUntil(queue, [&] { return !socket; }));
    }
    for (const char* command : {"text {\"type\":1}", "binary"}) {
        ASSERT_EQ(open(peer.url()), "");
        onQueue([&] {
            socket->onEnd = [this](const NetError&) { socket.reset(); };
            socket->next("type", 1h, [this](const auto&) { socket.reset(); });
        });
        peer.say(command);
        EXPECT_TRUE(harness.waitUntil(queue, [&] { return !socket; }));
    }
}

TEST(RendezvousSocketWithTLS, trustsWhomTheSystemTrustsAndNobodyElse)
{
    const lab::TemporaryFolder folder;
    const auto file = [&](const char* name) { return (folder.path() / name).string(); };
    lab::outputOf({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
        "-nodes", "-subj", "/CN=meet.example", "-addext", "subjectAltName=DNS:localhost", "-keyout",
        file("key"), "-out", file("certificate")});
    const Peer peer({file("certificate"), file("key")});
    const struct {
        const char* host;
        bool isKnown;
        const char* reason;
    } rows[] = {{"localhost", true, ""}, {"localhost", false, "certificate verify failed"},
        {"127.0.0.1", true, "certificate verify failed"}};
    for (const auto& [host, isKnown, reason] : rows) {
        SCOPED_TRACE(fmt::format("{} {}", host, isKnown));
        ::setenv("SSL_CERT_FILE", file(isKnown ? "certificate" : "none").c_str(), 1);
        PoolHarness harness;
        const QueueRef queue = harness.makeQueue();
        std::unique_ptr<RendezvousSocket> socket;
        std::optional<std::string> outcome;
        harness.runOn(queue, [&] {
            socket = rendezvousSockets(harness.pool)(queue, peer.url("wss", host));
            socket->open([&](const Result<void, NetError>& result) {
                outcome = result ? "" : result.error().description;
                if (result) socket->send({{"secret", 1}});
            });
        });
        EXPECT_TRUE(harness.waitUntil(queue, [&] { return outcome.has_value(); }));
        EXPECT_THAT(outcome.value_or("nothing"), HasSubstr(reason));
        EXPECT_EQ(outcome == "", *reason == '\0');
        if (outcome == "") {
            EXPECT_TRUE(peer.has(R"(text {"secret":1})"));
        }
        harness.runOn(queue, [&] { socket.reset(); });
    }
    ::unsetenv("SSL_CERT_FILE");
}

TEST(RendezvousURL, readsWhatPeopleWrite)
{
    const struct {
        const char* service;
        const char* url; // nothing: refused
    } rows[] = {
        {"https://meet.example", "wss://meet.example/v1/host"},
        {"https://meet.example:8443/a/b//", "wss://meet.example:8443/a/b/v1/host"},
        {"http://127.0.0.1:8080", "ws://127.0.0.1:8080/v1/host"},
        {"http://[::1]:80/x", "ws://[::1]:80/x/v1/host"},
        {"", nullptr},
        {"meet.example", nullptr},
        {"ftp://meet.example", nullptr},
        {"https://", nullptr},
        {"https:///v1", nullptr},
        {"https://:443", nullptr},
        {"https://user@meet.example", nullptr},
        {"https://meet.example?x=1", nullptr},
        {"https://meet.example/a b", nullptr},
        {"https://meet.example/a\r\nHost: other", nullptr},
    };
    for (const auto& [service, url] : rows)
        EXPECT_EQ(rendezvousURL(service, "v1/host").value_or("refused"), url ? url : "refused") << service;
}

} // namespace
} // namespace pelorin
