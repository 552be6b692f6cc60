#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "PelorinViewer/PairingRun.h"
#include "PelorinViewer/Viewer.h"
#include "Tests/Peers/PictureEncoder.h"
#include "Tests/Peers/ScriptedHost.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Kind = PhoneConnector::Failure::Kind;

// A viewer whose network comes and goes, on virtual time.
class ViewerResumeTest : public testing::Test {
protected:
    enum class Network { up, refusing, silent };

    ViewerResumeTest()
    {
        Log::observe([](LogLevel, std::string_view, std::string_view) {});
        options.isHeadless = true;
    }
    ~ViewerResumeTest() override
    {
        run([this] { viewer.reset(); });
        run([this] { host.reset(); });
        Log::observe({});
    }

    void run(Task task)
    {
        queue->post(std::move(task));
        queues.runReady();
    }
    void start(Duration resumption = 10min)
    {
        run([this, resumption] {
            viewer.emplace(queue, decodeQueue, options, std::vector<ScriptStep>());
            viewer->onFinished = [this](ViewerResult end) { result = std::move(end); };
            viewer->onLost = [this] { ++losses; };
            viewer->start(
                [this](Connected connected) { return connect(std::move(connected)); }, {}, resumption);
        });
        greet();
        show();
    }
    Subscription connect(Connected connected)
    {
        ++attempts;
        if (network == Network::silent) return {};
        return queue->after(connectTime, [this, connected = std::move(connected)] {
            if (network == Network::refusing) {
                viewer->remoteReports().failed({failure, "no way"});
                return connected(std::unexpected(NetError{"no way"}));
            }
            auto pair = LoopbackPair::make({});
            host.emplace(std::move(pair.second), queue);
            viewer->remoteReports().reached({.service = 1ms, .accepted = 2ms, .path = 3ms, .secured = 4ms},
                "direct 192.0.2." + std::to_string(attempts));
            connected(std::move(pair.first));
        });
    }
    void greet()
    {
        queues.advance(connectTime);
        answerHello();
    }
    void answerHello()
    {
        encoder.emplace(VideoCodec::h264, 160, 96); // a session begins with a keyframe
        run([this] { host->say(message::HelloAck{protocolVersion, "Studio"}); });
        run([this] { host->say(encoder->format()); });
    }
    void show()
    {
        run([this] { host->say(encoder->encode(100)); });
    }
    // The host hears and says nothing any more.
    void lose(Network how)
    {
        network = how;
        run([this] { host->answersPings = false; });
        const int before = losses;
        for (int i = 0; i < 100 && losses == before && !result; ++i) queues.advance(100ms);
    }

    static constexpr Duration connectTime = 300ms;
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("session"), decodeQueue = queues.makeQueue("decode");
    ViewerOptions options;
    Network network = Network::up;
    Kind failure = Kind::serviceUnreachable;
    int attempts = 0, losses = 0;
    std::optional<lab::ScriptedHost> host;
    std::optional<Viewer> viewer;
    std::optional<ViewerResult> result;
    std::optional<lab::PictureEncoder> encoder;
};

TEST_F(ViewerResumeTest, showsAPictureAgainSoonAfterTheNetworkIsBack)
{
    for (const Network how : {Network::refusing, Network::silent}) {
        for (const bool isTold : {true, false}) {
            SCOPED_TRACE(isTold);
            network = Network::up;
            attempts = losses = 0;
            start();
            lose(how);
            ASSERT_EQ(losses, 1);
            queues.advance(10s);
            EXPECT_LE(attempts, 30);
            EXPECT_FALSE(result);

            network = Network::up;
            const int before = attempts;
            if (isTold) run([this] { viewer->networkChanged(); });
            const auto back = queues.now();
            const auto isBack = [&] { return !host->isClosed && !host->all<message::Hello>().empty(); };
            while (!isBack() && queues.now() < back + 5s) queues.advance(10ms);
            // Told, it takes one connect; untold, the time of a try more, at most.
            EXPECT_LE(queues.now() - back, isTold ? connectTime + 10ms : connectTime + 1760ms);
            EXPECT_LE(attempts, before + 2);
            answerHello();
            show();

            run([this] { viewer->stop(); });
            ASSERT_TRUE(result);
            EXPECT_EQ(result->exit, ViewerExit::fine);
            const auto report = nlohmann::json::parse(result->report.json());
            EXPECT_EQ(report["resumes"], 1);
            EXPECT_EQ(report["connect"]["way"], "rendezvous");
            EXPECT_EQ(report["connect"]["path"], "direct 192.0.2." + std::to_string(attempts));
            EXPECT_EQ(report["connect"]["securedMs"], 4);
            EXPECT_EQ(report["connect"]["helloMs"], 300);
            EXPECT_TRUE(report["connect"]["firstPictureMs"].is_number());
            EXPECT_EQ(report["firstPictureMs"], 300); // of the first session
            result.reset();
        }
    }
}

TEST_F(ViewerResumeTest, goesOnCountingWhatWasAskedFor)
{
    options.frames = 2;
    start();
    lose(Network::silent);
    network = Network::up;
    run([this] { viewer->networkChanged(); });
    greet();
    EXPECT_FALSE(result);
    show();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::fine);
}

TEST_F(ViewerResumeTest, givesUpWhereThereIsNoHope)
{
    const struct {
        const char* name;
        Kind kind;
        Duration resumption;
        Duration within;
        ViewerExit exit;
    } rows[] = {
        {"the host knows us no longer", Kind::refused, 10min, 1s, ViewerExit::refused},
        {"somebody else answers", Kind::wrongHost, 10min, 1s, ViewerExit::cannotConnect},
        {"the time is up", Kind::hostOffline, 1min, 66s, ViewerExit::cannotConnect},
        {"nothing was to be resumed", Kind::hostOffline, 0s, 0s, ViewerExit::lost},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        network = Network::up;
        failure = row.kind;
        start(row.resumption);
        lose(Network::refusing);
        queues.advance(row.within);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->exit, row.exit) << result->message;
        EXPECT_EQ(result->report.figures.frames, 1);
        result.reset();
    }
}

TEST_F(ViewerResumeTest, restsMoreTheLongerItLasts)
{
    start();
    lose(Network::refusing);
    queues.advance(1min);
    const int early = attempts;
    queues.advance(8min);
    EXPECT_LE(early, 40);
    EXPECT_LE(attempts - early, 100);
    run([this] { viewer.reset(); }); // at any moment
    queues.advance(1h);
    EXPECT_FALSE(result);
}

TEST_F(ViewerResumeTest, takesAHostsOwnEndForAnEnd)
{
    start();
    run([this] { host->say(message::Error{ErrorCode::idleTimeout, "没有操作，已自动断开"}); });
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::refused);
    EXPECT_EQ(attempts, 1);
}

TEST(Pairing, keepsTheOtherWayToAHostThatIsPairedAgain)
{
    const RemotePlace place{"abcdefghijklmnopqrstuvwx27", Bytes(32, 7), "https://rendezvous.example.org"};
    const HostPlace tailnetPlace{"100.64.0.1", {}, 7420};
    const PairedHost tailnet{"Studio", tailnetPlace, {"dev-0123456789abcdef", SecretBytes(Bytes(32, 1))}};
    const PairedHost remote{"Studio", {}, {}, place};
    PairedHost both = tailnet;
    both.remote = place;
    const PairingLink link{
        "Studio", "100.64.0.1", {}, 7420, "pair-0123456789abcdef", SecretBytes(Bytes(32, 2))};
    const RemotePairingLink far{
        "Studio", place.hostID, place.fingerprint, place.service, SecretBytes(Bytes(32, 3))};
    EXPECT_EQ(withKnownWays(remote, {link, far}, {tailnet}), both);
    EXPECT_EQ(withKnownWays(tailnet, {link, far}, {remote}), both);
    EXPECT_EQ(withKnownWays(tailnet, {link, {}}, {remote}), tailnet); // perhaps another host
    RemotePairingLink other = far;
    other.fingerprint = Bytes(32, 8);
    EXPECT_EQ(withKnownWays(tailnet, {link, other}, {remote}), tailnet);
}

} // namespace
} // namespace pelorin
