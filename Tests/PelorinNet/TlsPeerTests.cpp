// The TLS channel against programs with nothing of ours in them.
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/Lab/Wait.h"
#include "Tests/PelorinNet/QueueHarness.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

using namespace pelorin;
using namespace std::chrono_literals;
using PelorinTLS::HandshakeFailure;
using PelorinTLS::Key;
using testing::HasSubstr;

namespace {

constexpr int exitTimeoutMs = 20'000; // a loaded machine under a sanitizer

using Arguments = std::vector<std::string>;

const Key deviceKey{"dev-0123456789abcdef", SecretBytes(Bytes(32, 0x55))};
const std::string hexSecret(64, '5'), wrongHexSecret(64, '6');

// A peer that is typed into and read from.
class Program {
public:
    explicit Program(Arguments arguments)
    {
        int ends[2];
        require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
        input = ends[1];
        process = lab::Process::start(std::move(arguments), {}, log.string(), ends[0]);
        ::close(ends[0]);
    }
    ~Program() { endInput(); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void type(std::string_view text)
    {
        EXPECT_EQ(::write(input, text.data(), text.size()), ssize_t(text.size()));
    }
    void endInput()
    {
        if (input >= 0) ::close(input);
        input = -1;
    }
    std::string output() const { return lab::contentOf(log); }
    bool says(const std::string& text) const
    {
        return lab::eventually([&] { return output().find(text) != std::string::npos; });
    }
    int waitForExit() { return process->waitForExit(exitTimeoutMs); }

private:
    const lab::TemporaryFolder folder;
    const std::filesystem::path log = folder.path() / "log";
    int input = -1;
    std::unique_ptr<lab::Process> process;
};

class TlsPeers : public testing::Test {
protected:
    // A connection of the server under test.
    struct Connection {
        std::unique_ptr<Channel> channel;
        std::optional<std::string> closed;
        std::optional<HandshakeFailure> failure;
    };

    void TearDown() override
    {
        harness.runOn(queue, [&] {
            connections.clear();
            listener.reset();
            connecting.cancel();
            client.reset();
        });
    }

    // Answers what it is told with the name of who told it.
    std::string serve(const std::vector<Key>& keys)
    {
        std::uint16_t port = 0;
        harness.runOn(queue, [&] {
            listener = TcpListener::listen(harness.pool, queue, "127.0.0.1", 0).value();
            listener->onConnection = [this, parameters = PelorinTLS::parameters(keys)](auto accepted) {
                auto& made = *connections.emplace_back(std::make_unique<Connection>());
                made.channel = PelorinTLS::serverChannel(std::move(accepted), parameters);
                made.channel->onBytes = [&made](ByteView bytes) {
                    const std::string said(bytes.begin(), bytes.end());
                    const std::string answer = made.channel->peerIdentity() + " said " + said;
                    made.channel->send(Bytes(answer.begin(), answer.end()));
                };
                made.channel->onClosed = [&made](auto error) {
                    made.closed = error ? error->description : "in order";
                    made.failure = PelorinTLS::handshakeFailure(*made.channel);
                    made.channel.reset(); // an alert gets through all the same
                };
                made.channel->start(queue);
            };
            port = listener->port();
        });
        return std::to_string(port);
    }
    bool waitForClose()
    {
        return harness.waitUntil(queue, [&] { return !connections.empty() && connections.back()->closed; });
    }

    // Our client at a server of openssl's; what became of it.
    struct Outcome {
        std::string received;
        std::optional<std::string> closed;
        std::optional<HandshakeFailure> failure;
    };
    void connectTo(std::uint16_t port, const Key& key)
    {
        outcome = {};
        harness.runOn(queue, [&] {
            connecting = connectTcp(harness.pool, queue, "127.0.0.1", port, 10s, [this, key](auto result) {
                client = PelorinTLS::clientChannel(std::move(result).value(), key);
                client->onBytes
                    = [this](ByteView bytes) { outcome.received.append(bytes.begin(), bytes.end()); };
                client->onClosed = [this](auto error) {
                    outcome.closed = error ? error->description : "in order";
                    outcome.failure = PelorinTLS::handshakeFailure(*client);
                };
                client->start(queue);
                client->send(Bytes{'a', 'b', 'c', '\n'});
            });
        });
    }

    PoolHarness harness;
    const QueueRef queue = harness.makeQueue();
    std::unique_ptr<TcpListener> listener;
    std::vector<std::unique_ptr<Connection>> connections;
    Subscription connecting;
    std::unique_ptr<Channel> client;
    Outcome outcome;
};

Arguments openssl(
    const std::string& port, const std::string& identity, const std::string& secret, Arguments more)
{
    Arguments arguments{
        "openssl", "s_client", "-connect", "127.0.0.1:" + port, "-psk_identity", identity, "-psk", secret};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

Arguments gnutls(const std::string& port, const std::string& identity, const std::string& secret,
    const std::string& priority)
{
    return {"gnutls-cli", "--pskusername", identity, "--pskkey", secret, "--priority", priority, "-p", port,
        "127.0.0.1"};
}

} // namespace

TEST_F(TlsPeers, serveEveryClientThatKnowsTheKeyWhateverElseItOffers)
{
    const std::string port = serve({deviceKey});
    const std::string& who = deviceKey.identity;
    const std::string suite = "ECDHE-PSK-CHACHA20-POLY1305";
    for (const auto& arguments : {
             openssl(port, who, hexSecret, {"-tls1_2", "-cipher", suite}),
             openssl(port, who, hexSecret, {}), // TLS 1.3 and dozens of suites too
             openssl(port, who, hexSecret,
                 {"-cipher", "PSK-AES128-GCM-SHA256:ECDHE-PSK-AES128-CBC-SHA256:" + suite}),
             openssl(port, who, hexSecret, {"-groups", "X25519"}),
             openssl(port, who, hexSecret, {"-groups", "P-256", "-no_ticket"}),
             gnutls(port, who, hexSecret, "NORMAL:-KX-ALL:+ECDHE-PSK"),
             gnutls(port, who, hexSecret, "NORMAL:+PSK:+DHE-PSK:+ECDHE-PSK"),
         }) {
        Program program(arguments);
        program.type("hello\n");
        EXPECT_TRUE(program.says(who + " said hello\n")) << program.output();
        EXPECT_THAT(program.output(), testing::ContainsRegex("TLSv?1.2"));
        EXPECT_THAT(program.output(), HasSubstr("CHACHA20-POLY1305"));
        program.endInput();
        EXPECT_EQ(program.waitForExit(), 0) << program.output();
        ASSERT_TRUE(waitForClose());
        EXPECT_EQ(connections.back()->closed, "in order");
        harness.runOn(queue, [&] { connections.clear(); });
    }
}

TEST_F(TlsPeers, refuseEveryOtherClientInWordsThatReachIt)
{
    const std::string port = serve({deviceKey});
    const std::string& who = deviceKey.identity;
    const struct {
        Arguments arguments;
        HandshakeFailure failure;
        const char* words;
    } cases[] = {
        {openssl(port, who, wrongHexSecret, {}), HandshakeFailure::keyRefused, "alert bad record mac"},
        {openssl(port, "dev-ffffffffffffffff", hexSecret, {}), HandshakeFailure::keyRefused,
            "alert number 115"},
        {openssl(port, who, hexSecret, {"-cipher", "PSK-AES128-GCM-SHA256:ECDHE-PSK-AES256-CBC-SHA384"}),
            HandshakeFailure::incompatible, "alert handshake failure"},
        {openssl(port, who, hexSecret, {"-tls1_3"}), HandshakeFailure::incompatible,
            "alert protocol version"},
        {openssl(port, who, hexSecret, {"-tls1_1", "-cipher", "ALL:@SECLEVEL=0"}),
            HandshakeFailure::incompatible, "alert protocol version"},
        {{"openssl", "s_client", "-connect", "127.0.0.1:" + port}, HandshakeFailure::incompatible,
            "alert handshake failure"},
        {openssl(port, who, hexSecret, {"-groups", "P-384"}), HandshakeFailure::incompatible,
            "alert handshake failure"},
        {gnutls(port, who, wrongHexSecret, "NORMAL:-KX-ALL:+ECDHE-PSK"), HandshakeFailure::keyRefused,
            "Bad record MAC"},
        {gnutls(port, "dev-ffffffffffffffff", hexSecret, "NORMAL:-KX-ALL:+ECDHE-PSK"),
            HandshakeFailure::keyRefused, "fatal alert has been received"},
    };
    for (const auto& [arguments, failure, words] : cases) {
        Program program(arguments);
        EXPECT_NE(program.waitForExit(), 0);
        EXPECT_THAT(program.output(), HasSubstr(words));
        ASSERT_TRUE(waitForClose());
        EXPECT_EQ(connections.back()->failure, failure) << *connections.back()->closed;
        EXPECT_THAT(*connections.back()->closed, testing::StartsWith("TLS handshake failed: "));
        harness.runOn(queue, [&] { connections.clear(); });
    }
}

TEST_F(TlsPeers, neitherRenegotiateNorResume)
{
    const lab::TemporaryFolder folder;
    const std::string session = (folder.path() / "session").string();
    const std::string port = serve({deviceKey});
    Program program(openssl(port, deviceKey.identity, hexSecret, {"-sess_out", session, "-tls1_2"}));
    program.type("hello\n");
    EXPECT_TRUE(program.says("said hello"));
    program.type("R\n"); // s_client's word for a renegotiation
    EXPECT_NE(program.waitForExit(), 0);
    EXPECT_THAT(program.output(), HasSubstr("no renegotiation"));
    EXPECT_TRUE(waitForClose());
    EXPECT_FALSE(std::filesystem::exists(session)) << "the client was given nothing to resume";
}

TEST_F(TlsPeers, closeWithCloseNotifyAndAnswerIt)
{
    const std::string port = serve({deviceKey});
    Program program(openssl(port, deviceKey.identity, hexSecret, {"-msg", "-tls1_2"}));
    program.type("hello\n");
    ASSERT_TRUE(program.says("said hello"));
    harness.runOn(queue, [&] { connections.back()->channel->finish(); });
    EXPECT_EQ(program.waitForExit(), 0) << program.output();
    EXPECT_THAT(program.output(), testing::ContainsRegex("<<< TLS 1.2, Alert .*warning close_notify"));
}

TEST_F(TlsPeers, areServedByOpenssl)
{
    Program server({"openssl", "s_server", "-accept", "127.0.0.1:0", "-psk", hexSecret, "-psk_identity",
        deviceKey.identity, "-nocert", "-rev"});
    ASSERT_TRUE(server.says("ACCEPT 127.0.0.1:"));
    const std::string output = server.output();
    const auto port = std::uint16_t(std::stoi(output.substr(output.find("ACCEPT") + 17)));

    connectTo(port, deviceKey);
    EXPECT_TRUE(harness.waitUntil(queue, [&] { return outcome.received == "cba\n"; }));
    harness.runOn(queue, [&] {
        EXPECT_EQ(client->peerIdentity(), deviceKey.identity);
        client->finish();
        client.reset();
    });

    connectTo(port, {deviceKey.identity, SecretBytes(Bytes(32, 0x66))});
    ASSERT_TRUE(harness.waitUntil(queue, [&] { return outcome.closed.has_value(); }));
    EXPECT_EQ(outcome.failure, HandshakeFailure::keyRefused) << *outcome.closed;
    EXPECT_EQ(outcome.received, "");
}
