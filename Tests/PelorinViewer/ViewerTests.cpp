#include "PelorinViewer/Viewer.h"

#include "PelorinCore/Keys/MacKey.h"
#include "PelorinNet/Channel/LoopbackPair.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Peers/PictureEncoder.h"
#include "Tests/Peers/ScriptedHost.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace pelorin;
using namespace std::chrono_literals;

namespace {

constexpr int widthPx = 160;
constexpr int heightPx = 96;

class ViewerTest : public testing::Test {
protected:
    ViewerTest()
    {
        Log::observe([](LogLevel, std::string_view, std::string_view) {});
        options.isHeadless = true;
    }
    ~ViewerTest() override
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
    void start(std::string_view script = {})
    {
        connect(script);
        hostSays(message::HelloAck{protocolVersion, "Test host"});
        hostSays(message::PathInfo{"loopback"});
        hostSays(encoder.format());
    }
    void connect(std::string_view script = {})
    {
        if (!script.empty()) options.scriptFile = "given";
        run([this, steps = parseScript(script).value()]() mutable {
            viewer.emplace(queue, decodeQueue, options, std::move(steps));
            viewer->onFinished = [this](ViewerResult end) { result = std::move(end); };
            viewer->start([this](Connected connected) {
                auto pair = LoopbackPair::make({});
                host.emplace(std::move(pair.second), queue);
                host->answersPings = answersPings;
                queue->post([connected = std::move(connected), channel = std::move(pair.first)]() mutable {
                    connected(std::move(channel));
                });
                return Subscription();
            });
        });
    }
    void hostSays(const Message& message)
    {
        run([this, message] { host->say(message); });
    }
    void show(std::uint8_t luma) { hostSays(encoder.encode(luma)); }
    nlohmann::json json() const { return nlohmann::json::parse(result->report.json()); }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("session");
    QueueRef decodeQueue = queues.makeQueue("decode");
    ViewerOptions options;
    bool answersPings = true;
    std::optional<lab::ScriptedHost> host;
    std::optional<Viewer> viewer;
    std::optional<ViewerResult> result;
    lab::PictureEncoder encoder{VideoCodec::h264, widthPx, heightPx};
};

TEST_F(ViewerTest, countsFramesAndSavesTheLastPicture)
{
    const lab::TemporaryFolder folder;
    options.frames = 3;
    options.screenshotFile = (folder.path() / "last.png").string();
    start();
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(result);
        queues.advance(500ms);
        show(100);
    }
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::fine);
    EXPECT_EQ(host->all<message::Bye>().size(), 1U);
    EXPECT_EQ(lab::Picture::ofPNG(options.screenshotFile).widthPx, widthPx);
    const auto figures = json();
    EXPECT_EQ(figures["host"], "Test host");
    EXPECT_EQ(figures["path"], "loopback");
    EXPECT_EQ(figures["codec"], "h264");
    EXPECT_EQ(figures["frames"], 3);
    EXPECT_EQ(figures["fps"], 2);
    EXPECT_EQ(figures["dropped"], 0);
    EXPECT_EQ(figures["firstPictureMs"], 500);
    EXPECT_EQ(figures["stagesMs"].size(), 7U);
    EXPECT_TRUE(figures["stagesMs"]["encode"].is_null()); // this host sends no stamps
    EXPECT_TRUE(figures["pictureAgeMs"]["p95"].is_null());
}

TEST_F(ViewerTest, endsWhenAllThatWasAskedForIsDone)
{
    options.frames = 1;
    options.seconds = 2;
    start("wait 1000");
    show(100);
    queues.advance(1500ms);
    EXPECT_FALSE(result);
    queues.advance(500ms);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::fine);
}

TEST_F(ViewerTest, passesTheHostsRefusalOn)
{
    start();
    hostSays(message::Error{ErrorCode::idleTimeout, "没有操作，已自动断开"});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::refused);
    EXPECT_EQ(result->message, "没有操作，已自动断开");
}

TEST_F(ViewerTest, tellsALostConnectionFromARefusal)
{
    start();
    run([this] { host->hangUp(); });
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::lost);
}

TEST_F(ViewerTest, failsWithTheScriptAndAtTheTimeLimit)
{
    start("expect change 5\nkey a\nexpect change 1");
    show(100);
    queues.advance(1s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::failed);
    EXPECT_EQ(result->message, "script line 3: the picture did not change");

    result.reset();
    options.frames = 1;
    options.timeoutSeconds = 3;
    start();
    queues.advance(3s);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::failed);
}

TEST_F(ViewerTest, cannotSaveAPictureThatNeverCame)
{
    options.screenshotFile = "never.png";
    start("quit");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::failed);
}

TEST_F(ViewerTest, measuresFromThePressToTheDecodedPicture)
{
    options.measure = MeasureKind::latency;
    options.trials = 20;
    start();
    show(40);
    std::size_t answered = 0;
    bool isLight = false;
    for (int i = 0; i < 20'000 && !result; ++i) {
        queues.advance(1ms);
        if (i % 16 == 0) show(isLight ? 200 : 40); // pictures that show no change don't count
        const auto keys = host->all<message::Key>();
        if (keys.size() / 2 == answered) continue;
        answered = keys.size() / 2;
        if (answered == 5) continue; // one is never seen
        queues.advance(7ms);
        isLight = !isLight;
        show(isLight ? 200 : 40);
    }
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::fine);
    const auto figures = json();
    EXPECT_EQ(figures["inputToPixelMs"]["n"], 19);
    EXPECT_EQ(figures["lost"], 1);
    EXPECT_NEAR(figures["inputToPixelMs"]["p50"].get<double>(), 8, 1);
    EXPECT_NEAR(figures["inputToPixelMs"]["p99"].get<double>(), 8, 1);
    EXPECT_EQ(host->all<message::Key>()[0], (message::Key{MacKey::space, true, keyModifier::none}));
    EXPECT_EQ(host->all<message::Key>()[1], (message::Key{MacKey::space, false, keyModifier::none}));
}

TEST_F(ViewerTest, failsToMeasureADesktopThatDoesNotAnswer)
{
    options.measure = MeasureKind::latency;
    options.trials = 2;
    start();
    show(40);
    for (int i = 0; i < 100 && !result; ++i) {
        queues.advance(100ms);
        show(42);
    }
    ASSERT_TRUE(result);
    EXPECT_EQ(result->exit, ViewerExit::failed);
}

TEST_F(ViewerTest, measuresMotionAfterItHasSettled)
{
    options.measure = MeasureKind::motion;
    options.seconds = 2;
    start();
    for (int i = 0; i < 500 && !result; ++i) {
        show(i % 20 < 10 ? 40 : 200); // all blocks of the mark black, then all white: two numbers in 200 ms
        queues.advance(10ms);
    }
    ASSERT_TRUE(result);
    const auto figures = json();
    EXPECT_NEAR(figures["distinctFps"].get<double>(), 10, 1);
    EXPECT_EQ(figures["torn"], 0);
    EXPECT_NEAR(figures["seconds"].get<double>(), 2, 0.05); // without the time to settle
    EXPECT_NEAR(figures["frames"].get<int>(), 200, 3);
}

TEST_F(ViewerTest, saysHowToPairWhenAHostHangsUpOnAPlainHello)
{
    const struct {
        const char* what;
        Bytes answer;
        ViewerTarget target;
        bool isTold;
    } rows[] = {
        {"closed at once", {}, HostAddress{"h", 1}, true},
        {"a TLS alert", {0x15, 3, 3, 0, 2, 2, 70}, HostAddress{"h", 1}, true},
        {"after an answer", encodeFrame(message::HelloAck{protocolVersion, "h"}), HostAddress{"h", 1}, false},
        {"by a host that has paired us", {}, PairedHostName{"h"}, false},
    };
    for (const auto& [what, answer, target, isTold] : rows) {
        result.reset();
        options.target = target;
        answersPings = false; // as one that waits for TLS
        connect();
        run([&] { host->say(answer); });
        run([this] { host->hangUp(); });
        ASSERT_TRUE(result) << what;
        EXPECT_EQ(result->exit, ViewerExit::lost) << what;
        EXPECT_EQ(result->message.find("run `pelorin-host pair` there") != std::string::npos, isTold)
            << what << ": " << result->message;
        run([this] { viewer.reset(); });
    }
}

TEST_F(ViewerTest, isPatientWithAHostThatHasJustPairedIt)
{
    const PelorinTLS::Key key{"dev-0123456789abcdef", SecretBytes(Bytes(32, 1))};
    options.target = PairedHostName{"h"};
    options.seconds = 1;
    std::vector<PelorinTLS::Key> hostKeys;
    const auto connectSecurely = [&](Connected connected) {
        auto pair = LoopbackPair::make({});
        host.emplace(
            PelorinTLS::serverChannel(std::move(pair.second), PelorinTLS::parameters(hostKeys)), queue);
        queue->post([connected = std::move(connected), key, channel = std::move(pair.first)]() mutable {
            connected(PelorinTLS::clientChannel(std::move(channel), key));
        });
        return Subscription();
    };
    for (const bool isLearnt : {true, false}) {
        result.reset();
        hostKeys.clear();
        run([&] {
            viewer.emplace(queue, decodeQueue, options, std::vector<ScriptStep>{});
            viewer->onFinished = [this](ViewerResult end) { result = std::move(end); };
            viewer->start(connectSecurely, 6s);
        });
        queues.advance(4s);
        EXPECT_FALSE(result);
        if (isLearnt) hostKeys = {key};
        queues.advance(2s);
        if (isLearnt) hostSays(message::HelloAck{protocolVersion, "Test host"});
        queues.advance(2s);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->exit, isLearnt ? ViewerExit::fine : ViewerExit::refused) << result->message;
        EXPECT_EQ(result->message.find("does not know this device") != std::string::npos, !isLearnt);
        run([this] { viewer.reset(); });
    }
}

TEST_F(ViewerTest, mayBeDestroyedWhenItFinishesAndWhileItConnects)
{
    options.frames = 1;
    start();
    viewer->onFinished = [this](const ViewerResult& end) {
        result = end;
        viewer.reset();
    };
    show(100);
    EXPECT_TRUE(result);
    queues.advance(10s);

    run([this] {
        viewer.emplace(queue, decodeQueue, options, std::vector<ScriptStep>{});
        viewer->start([this](const Connected& connected) {
            return queue->after(1s, [connected] { connected(std::unexpected(NetError{"too late"})); });
        });
        viewer.reset();
    });
    queues.advance(2s);
}

} // namespace
