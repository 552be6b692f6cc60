#include "PelorinHost/Screen/ScreenStreamer.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/FakeCompression.h"
#include "Tests/Fakes/FakeDisplayCapture.h"
#include "Tests/PelorinHost/LogLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;

TEST(CaptureSize, fitsTheViewportEvenAndNeverEnlarged)
{
    const struct {
        const char* what;
        int displayWidth, displayHeight;
        Viewport viewport;
        double scale;
        CaptureSize expected;
    } rows[] = {
        {"no viewport yet", 1920, 1080, {0, 0, 1}, 1, {1920, 1080}},
        {"no viewport yet, scaled", 1920, 1080, {0, 0, 1}, 0.5, {960, 540}},
        {"half a viewport counts as none", 1920, 1080, {800, 0, 1}, 1, {1920, 1080}},
        {"upright phone", 2560, 1600, {1170, 2532, 3}, 1, {1170, 730}},
        {"lying phone", 2560, 1600, {2532, 1170, 3}, 1, {1872, 1170}},
        {"phone larger than the display", 1280, 720, {4000, 4000, 3}, 1, {1280, 720}},
        {"odd display", 1365, 767, {0, 0, 1}, 1, {1364, 766}},
        {"tiny scale, whatever the aspect", 1920, 1080, {1920, 1080, 1}, 0.01, {320, 200}},
        {"narrow display", 200, 2000, {0, 0, 1}, 1, {320, 2000}},
        {"viewport of one pixel", 1920, 1080, {1, 1, 1}, 1, {320, 200}},
        {"largest viewport there is", 1920, 1080, {0xFFFFFFFF, 0xFFFFFFFF, 1}, 1, {1920, 1080}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(captureSize(row.displayWidth, row.displayHeight, row.viewport, row.scale), row.expected)
            << row.what;
}

struct ScreenStreamerTest : testing::Test {
    ScreenStreamerTest() { make({.displayID = 7, .viewport = {960, 2000, 3}}); }
    ~ScreenStreamerTest() override
    {
        streamer.reset();
        queues.runReady();
    }

    void make(ScreenStreamer::Settings settings)
    {
        streamer = std::make_unique<ScreenStreamer>(capture, compression, queue, settings);
        streamer->onFrame = [this](EncodedFrame frame) { frames.push_back(std::move(frame)); };
        streamer->onDisplayInfo = [this](message::DisplayInfo info) { infos.push_back(info); };
        streamer->onError = [this](std::string reason) { errors.push_back(std::move(reason)); };
    }
    void beginStart()
    {
        streamer->start([this](Result<void, ScreenStreamerError> result) { started = std::move(result); });
        queues.runReady();
    }
    void startAndFeed()
    {
        beginStart();
        ASSERT_TRUE(started && *started);
        capture.stream->feed();
        queues.runReady();
        ASSERT_EQ(frames.size(), 1U);
    }
    template <class Action>
    void act(Action action)
    {
        action();
        queues.runReady();
    }

    const LogLines log{"capture"};
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("capture");
    FakeDisplayCapture capture;
    FakeCompression compression;
    std::unique_ptr<ScreenStreamer> streamer;
    std::optional<Result<void, ScreenStreamerError>> started;
    std::vector<EncodedFrame> frames;
    std::vector<message::DisplayInfo> infos;
    std::vector<std::string> errors;
};

TEST_F(ScreenStreamerTest, looksADisplayUpTwentyFiveTimes)
{
    capture.displaysFromLookup = 25;
    beginStart();
    queues.advance(24 * 200ms - 1ms);
    EXPECT_FALSE(started);
    queues.advance(1ms);
    ASSERT_TRUE(started);
    EXPECT_TRUE(*started);
    EXPECT_EQ(capture.lookups, 25);
    EXPECT_THAT(log.lines, Contains("display 7 not shareable yet (attempt 24)"));

    capture.lookups = 0;
    capture.displaysFromLookup = 26;
    make({.displayID = 7, .viewport = {}});
    beginStart();
    queues.advance(60s);
    ASSERT_FALSE(*started);
    EXPECT_EQ(started->error().kind, ScreenStreamerError::Kind::noDisplay);
    EXPECT_EQ(capture.lookups, 25);
    EXPECT_EQ(capture.stream, nullptr);
}

TEST_F(ScreenStreamerTest, looksAgainForADisplayThatWentOnceListed)
{
    capture.isDisplayGoneOnceListed = true;
    beginStart();
    queues.advance(200ms);
    EXPECT_FALSE(started);
    EXPECT_TRUE(infos.empty());
    capture.isDisplayGoneOnceListed = false;
    queues.advance(200ms);
    EXPECT_TRUE(started && *started);
    EXPECT_EQ(capture.streamsMade, 3);
}

TEST_F(ScreenStreamerTest, passesThePlatformsRefusalOn)
{
    for (auto* failure : {&capture.makeFailure, &capture.startFailure}) {
        *failure = PlatformError{"no MIT-SHM"};
        make({.displayID = 7, .viewport = {}});
        beginStart();
        ASSERT_TRUE(started);
        EXPECT_EQ(started->error().kind, ScreenStreamerError::Kind::platform);
        EXPECT_EQ(started->error().description, "no MIT-SHM");
        EXPECT_EQ(capture.stream, nullptr);
        EXPECT_TRUE(infos.empty());
        failure->reset();
    }
}

TEST_F(ScreenStreamerTest, rebuildsTheConfigurationOnlyForWhatIsNew)
{
    startAndFeed();
    act([&] { streamer->update(Viewport{960, 2000, 3}); });
    act([&] { streamer->update(1.0); });
    EXPECT_TRUE(capture.stream->updates.empty());

    act([&] { streamer->update(Viewport{960, 2000, 2}); }); // each of the three members counts
    act([&] { streamer->update(Viewport{1280, 2000, 2}); });
    act([&] { streamer->update(0.75); });
    act([&] { streamer->update(0.75); });
    act([&] { streamer->rebuildConfiguration(); });
    EXPECT_THAT(capture.stream->updates,
        ElementsAre(CaptureConfiguration{960, 540, 60, true}, CaptureConfiguration{1280, 720, 60, true},
            CaptureConfiguration{960, 540, 60, true}, CaptureConfiguration{960, 540, 60, true}));
    EXPECT_EQ(infos.size(), 1 + capture.stream->updates.size());
}

TEST_F(ScreenStreamerTest, keepsTheOldConfigurationWhenAnUpdateFails)
{
    startAndFeed();
    capture.updateFailure = PlatformError{"not now"};
    act([&] { streamer->update(0.5); });
    EXPECT_THAT(log.lines, Contains("updateConfiguration failed: not now"));
    EXPECT_EQ(infos.size(), 1U);
    act([&] { capture.stream->feed(); });
    EXPECT_EQ(frames.size(), 2U);
    EXPECT_TRUE(errors.empty());
}

TEST_F(ScreenStreamerTest, takesUpdatesMadeWhileTheDisplayIsLookedUp)
{
    capture.displaysFromLookup = 3;
    beginStart();
    act([&] { streamer->update(0.5); });
    queues.advance(1s);
    EXPECT_EQ(capture.stream->configuration.widthPx, 480);
    EXPECT_TRUE(capture.stream->updates.empty());
}

TEST_F(ScreenStreamerTest, neverLetsTimeRunBackwards)
{
    startAndFeed();
    const auto early = queues.now();
    queues.advance(10ms);
    act([&] { streamer->repeatLastFrame(); });
    auto waited = capture.stream; // a change older than the repeat, which had to wait for its turn
    CaptureSample sample{FrameStatus::complete,
        std::make_shared<PixelBuffer>(
            PixelBuffer{.widthPx = 960, .heightPx = 540, .sequence = 2, .damage = {}, .times = {}}),
        early + 5ms};
    act([&] { waited->report(sample); });
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_GT(frames[2].ptsMicros, frames[1].ptsMicros);
}

TEST_F(ScreenStreamerTest, doesNothingOnceStopped)
{
    startAndFeed();
    capture.stream->feed(); // under way on the capture queue
    capture.stream->stopByItself("too late");
    streamer->requestKeyframe();
    streamer->stop();
    streamer->stop();
    queues.runReady();
    EXPECT_EQ(capture.stream, nullptr);
    EXPECT_TRUE(compression.lastSession().isDestroyed);

    streamer->update(0.5);
    streamer->update(Viewport{100, 100, 1});
    streamer->rebuildConfiguration();
    streamer->setBitrate(1);
    streamer->requestKeyframe();
    streamer->repeatLastFrame();
    streamer->captureStill();
    queues.advance(10s);
    EXPECT_EQ(frames.size(), 1U);
    EXPECT_TRUE(errors.empty());
}

} // namespace
} // namespace pelorin
