#include "PelorinCore/Pairing/PairingLink.h"
#include "PelorinHost/HostSession.h"
#include "PelorinHost/Linux/LinuxPlatform.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinNet/Queue/Confined.h"
#include "Tests/Lab/Programs.h"

#include <future>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

// The real viewer program pairs over real sockets and TLS with the host's own store and sessions, and sees a
// real desktop.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::SizeIs;

constexpr int refused = 4; // the viewer's exit codes
constexpr int lost = 6;

// Listens as a host that asks phones to be paired, and takes up a change of its keys after a while.
class PairingHost {
public:
    PairingHost()
    {
        platform = makeLinuxPlatform(pool, server.display());
        std::promise<std::uint16_t> listening;
        queue->post([&] {
            takeUpKeys();
            watch = store.onDidChange(queue, [this] {
                if (!isFrozen) rebuilt = queue->after(1s, [this] { takeUpKeys(); });
            });
            listener = TcpListener::listen(pool, queue, "127.0.0.1", 0).value();
            listener->onConnection = [this](std::unique_ptr<Channel> connection) {
                accept(PelorinTLS::serverChannel(std::move(connection), parameters));
            };
            listening.set_value(listener->port());
        });
        port = listening.get_future().get();
    }

    ~PairingHost()
    {
        std::promise<void> gone;
        queue->post([&] {
            watch.cancel();
            rebuilt.cancel();
            listener.reset();
            sessions.clear();
            gone.set_value();
        });
        gone.get_future().wait();
    }

    std::string offerLink()
    {
        const auto offer = store.beginPairing();
        return PairingLink{"Studio", "127.0.0.1", {}, port, offer.key.identity, offer.key.secret}.url();
    }

    std::string name() { return platform->system().hostName(); }

    void takeUpKeysNow()
    {
        std::promise<void> done;
        queue->post([&] {
            takeUpKeys();
            done.set_value();
        });
        done.get_future().wait();
    }

    std::uint16_t port = 0;
    std::atomic<bool> isFrozen = false; // the listener keeps its keys

private:
    void takeUpKeys() { parameters = PelorinTLS::parameters(store.keys()); }

    void accept(std::unique_ptr<Channel> connection)
    {
        const QueueRef sessionQueue = pool.makeQueue("dev.pelorin.host.session");
        auto& session = sessions.emplace_back(
            sessionQueue, [this, sessionQueue, connection = std::move(connection)]() mutable {
                return std::make_unique<HostSession>(
                    SessionSurroundings{*platform, pool, store, std::nullopt}, HostConfig(),
                    std::move(connection), "me@example.com", sessionQueue);
            });
        session.run([](HostSession& starting) { starting.start(); });
    }

    lab::XServer server;
    lab::TemporaryFolder folder;
    std::unique_ptr<HostPlatform> platform; // outlives the pool, whose last tasks still use it
    QueuePool pool{3};
    const QueueRef queue = pool.makeQueue("host");

public:
    PairingStore store{folder.path(), queue};

private:
    Subscription watch;
    Subscription rebuilt;
    std::shared_ptr<const PelorinTLS::ServerParameters> parameters;
    std::unique_ptr<TcpListener> listener;
    std::vector<Confined<HostSession>> sessions;
};

struct Pairing : testing::Test {
    lab::TemporaryFolder config;
    PairingHost host;

    struct Run {
        int exit;
        std::string output;
    };
    Run view(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), lab::programPath("pelorin-viewer"));
        const lab::TemporaryFolder folder;
        const auto output = folder.path() / "output";
        const auto program
            = lab::Process::start(arguments, {"XDG_CONFIG_HOME=" + config.path().string()}, output.string());
        const int exit = program->waitForExit(60'000);
        return {exit, lab::contentOf(output)};
    }
    Run show(const std::string& target) const { return view({target, "--headless", "--frames", "1"}); }
};

TEST_F(Pairing, letsAViewerInFromTheLinkOnAndByNameLater)
{
    const auto first = show(host.offerLink());
    EXPECT_EQ(first.exit, 0) << first.output;
    EXPECT_THAT(first.output,
        HasSubstr("Paired with " + host.name() + ". From now on: pelorin-viewer '" + host.name() + "'"));
    const auto devices = host.store.devices();
    ASSERT_THAT(devices, SizeIs(1));

    const auto file = config.path() / "Pelorin" / "viewer" / "paired-hosts.json";
    struct stat status = {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    std::string capitals = host.name();
    std::ranges::transform(capitals, capitals.begin(), ::toupper);
    const auto again = show(capitals);
    EXPECT_EQ(again.exit, 0) << again.output;

    const auto listed = view({"--list", "--json"});
    const auto hosts = nlohmann::json::parse(listed.output)["hosts"];
    ASSERT_THAT(hosts, SizeIs(1));
    EXPECT_EQ(hosts[0]["deviceID"], devices[0].id);
    EXPECT_EQ(hosts[0]["port"], host.port);
    EXPECT_FALSE(hosts[0].contains("key"));

    EXPECT_EQ(view({"--forget", "attic"}).exit, 2);
    EXPECT_EQ(view({"--forget", host.name()}).exit, 0);
    EXPECT_EQ(show(host.name()).exit, 2);
    EXPECT_EQ(view({"--list"}).output, "paired with no host\n");
}

TEST_F(Pairing, passesOnTheHostsWordsAboutALinkThatSomebodyElseUsed)
{
    host.isFrozen = true; // it goes on listening with the link's key
    const auto link = PairingLink::parse(host.offerLink());
    host.takeUpKeysNow();
    ASSERT_TRUE(host.store.redeem(link->pairingID, "somebody else"));
    const auto late = show(link->url());
    EXPECT_EQ(late.exit, refused);
    EXPECT_THAT(
        late.output, HasSubstr("配对码已过期或已经用过。请在 Mac 菜单里重新点「配对新手机」再扫一次"));
    EXPECT_THAT(host.store.devices(), SizeIs(1));
    EXPECT_EQ(view({"--list"}).output, "paired with no host\n");
}

TEST_F(Pairing, shutsOutARemovedViewerAndPlainOnes)
{
    ASSERT_EQ(show(host.offerLink()).exit, 0);
    ASSERT_EQ(show(host.name()).exit, 0);
    host.store.remove(host.store.devices()[0].id);
    host.takeUpKeysNow();
    const auto removed = show(host.name());
    EXPECT_EQ(removed.exit, refused);
    EXPECT_THAT(removed.output, HasSubstr("the host does not know this device, or no longer"));

    const auto plain = show("127.0.0.1:" + std::to_string(host.port));
    EXPECT_EQ(plain.exit, lost);
    EXPECT_THAT(plain.output,
        HasSubstr("perhaps this host talks to paired phones only: then run `pelorin-host pair`"));
}

} // namespace
} // namespace pelorin
