// The QUIC listener against a program with nothing of ours in it.
#include "Tests/Lab/Process.h"
#include "Tests/PelorinNet/QueueHarness.h"
#include "Tests/PelorinNet/QuicPeers.h"

#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>

using namespace pelorin;
using testing::HasSubstr;

namespace {

// Sends back what it receives, and ends when its peer has.
class Echo {
public:
    Echo(std::unique_ptr<PelorinQUIC::Connection> newConnection, const QueueRef& queue)
        : connection(std::move(newConnection))
    {
        connection->onStream = [this, queue](auto stream) {
            channel = std::move(stream);
            channel->onBytes = [this](ByteView bytes) { channel->send(Bytes(bytes.begin(), bytes.end())); };
            channel->start(queue);
        };
    }
    const std::unique_ptr<PelorinQUIC::Connection> connection;

private:
    std::unique_ptr<Channel> channel;
};

class QuicPeers : public testing::Test {
protected:
    void SetUp() override
    {
        if (!std::filesystem::exists(program))
            GTEST_SKIP() << "built only with golang-go and golang-github-lucas-clemente-quic-go-dev";
        harness.runOn(queue, [&] {
            const auto note = [](const Bytes&) { return true; };
            listener = PelorinQUIC::Listener::listen(
                queue, "127.0.0.1", 0, PelorinQUIC::parameters(harness.pool, *identity, true, note))
                           .value();
            listener->onConnection = [this](auto made) {
                shown = made->peerFingerprint();
                echoes.push_back(std::make_unique<Echo>(std::move(made), queue));
            };
        });
    }
    void TearDown() override
    {
        harness.runOn(queue, [&] {
            echoes.clear();
            listener.reset();
        });
    }
    std::string run(const std::string& key, const std::string& protocol, std::size_t bytes)
    {
        return lab::outputOf(
            {program, fmt::format("127.0.0.1:{}", listener->port()), key, protocol, std::to_string(bytes)});
    }
    static std::string hex(const Bytes& bytes)
    {
        std::string text;
        for (const auto byte : bytes) text += fmt::format("{:02x}", byte);
        return text;
    }

    const std::string program
        = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "pelorin-quic-peer";
    PoolHarness harness;
    const QueueRef queue = harness.makeQueue("quic");
    const std::unique_ptr<SoftwareIdentity> identity = makeQuicIdentity("host");
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::vector<std::unique_ptr<Echo>> echoes;
    std::optional<Bytes> shown;
};

} // namespace

TEST_F(QuicPeers, areServedWithTheKeysThatBothEndsShow)
{
    for (const std::size_t size : {std::size_t(1), std::size_t(1'000'000)}) {
        const std::string output = run("p256", "pelorin/1", size);
        EXPECT_THAT(output, HasSubstr("host " + hex(identity->fingerprint())));
        EXPECT_THAT(output, HasSubstr(fmt::format("received {}\n", size)));
        EXPECT_THAT(output, HasSubstr("done"));
        harness.runOn(queue, [&] {
            ASSERT_TRUE(shown);
            EXPECT_THAT(output, HasSubstr("phone " + hex(*shown)));
            shown.reset();
        });
    }
}

TEST_F(QuicPeers, areRefusedWithTheAlertThatTellsWhy)
{
    const struct {
        const char *key, *protocol, *alert;
    } rows[] = {
        {"none", "pelorin/1", "0x174"}, // certificate_required
        {"rsa", "pelorin/1", "0x12a"}, // bad_certificate
        {"ed25519", "pelorin/1", "0x12a"}, {"p384", "pelorin/1", "0x12a"},
        {"p256", "h3", "0x178"}, // no_application_protocol
    };
    for (const auto& [key, protocol, alert] : rows) {
        const std::string output = run(key, protocol, 10);
        EXPECT_THAT(output, HasSubstr("failed")) << key;
        EXPECT_THAT(output, HasSubstr(alert)) << key;
    }
    harness.runOn(queue, [&] { EXPECT_FALSE(shown); });
}
