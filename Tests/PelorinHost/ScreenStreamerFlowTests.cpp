#include "PelorinHost/Linux/LinuxCompression.h"
#include "PelorinHost/Linux/X11DisplayCapture.h"
#include "PelorinHost/Screen/ScreenStreamer.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/XDrawing.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// The streamer on real threads, between a real X server and the real encoder.
struct ScreenStreamerFlowTest : testing::Test {
    std::unique_ptr<ScreenStreamer> makeStreamer(bool showsCursor)
    {
        auto made = std::make_unique<ScreenStreamer>(capture, compression, pool.makeQueue("capture"),
            ScreenStreamer::Settings{.displayID = capture.shareableDisplays().at(0).id,
                .showsCursor = showsCursor,
                .viewport = {640, 1280, 2}});
        made->onFrame = [this](EncodedFrame frame) { note([&] { frames.push_back(std::move(frame)); }); };
        made->onDisplayInfo = [this](message::DisplayInfo info) { note([&] { infos.push_back(info); }); };
        made->onError = [this](std::string reason) { note([&] { errors.push_back(std::move(reason)); }); };
        return made;
    }
    template <class Change>
    void note(Change change)
    {
        const std::lock_guard guard(lock);
        change();
        changed.notify_all();
    }
    template <class Condition>
    [[nodiscard]] bool waitUntil(Condition condition)
    {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, 20s, condition);
    }
    // Whether what action does brings a frame of that kind.
    template <class Action>
    [[nodiscard]] bool bringsFrame(bool isKeyframe, Action action)
    {
        std::size_t known = 0;
        note([&] { known = frames.size(); });
        action();
        return waitUntil([&] {
            return std::any_of(frames.begin() + static_cast<std::ptrdiff_t>(known), frames.end(),
                [&](const EncodedFrame& frame) { return frame.isKeyframe == isKeyframe; });
        });
    }

    lab::XServer server;
    X11DisplayCapture capture{server.display()};
    LinuxCompression compression;
    std::mutex lock; // guards what callbacks fill in
    std::condition_variable changed;
    std::vector<EncodedFrame> frames;
    std::vector<message::DisplayInfo> infos;
    std::vector<std::string> errors;
    QueuePool pool{2};
};

TEST_F(ScreenStreamerFlowTest, streamsADesktopWhileEverythingChanges)
{
    lab::XDrawing drawing(server.display());
    auto streamer = makeStreamer(true);
    streamer->start([](Result<void, ScreenStreamerError> result) { EXPECT_TRUE(result); });
    ASSERT_TRUE(waitUntil([&] { return !frames.empty(); }));
    EXPECT_TRUE(frames.front().isKeyframe);
    EXPECT_EQ(infos.front(), (message::DisplayInfo{640, 360, 1280, 720}));

    for (int i = 0; i < 20; ++i) {
        if (i % 5 == 0) streamer->setBitrate(2'000'000 + i * 100'000);
        EXPECT_TRUE(bringsFrame(false, [&] { drawing.fill(10 * i, 10 * i, 30, 30, 0xFF0000); }));
        EXPECT_TRUE(bringsFrame(false, [&] { drawing.movePointer(20 * i + 10, 100); }));
    }
    EXPECT_TRUE(bringsFrame(true, [&] { streamer->requestKeyframe(); }));
    EXPECT_TRUE(bringsFrame(false, [&] { streamer->repeatLastFrame(); }));
    EXPECT_TRUE(bringsFrame(true, [&] { streamer->update(0.75); })); // of another size
    EXPECT_TRUE(bringsFrame(false, [&] { streamer->captureStill(); }));
    EXPECT_EQ(infos.back(), (message::DisplayInfo{480, 270, 1280, 720}));

    server.kill();
    EXPECT_TRUE(waitUntil([&] { return !errors.empty(); }));
    EXPECT_EQ(errors, std::vector<std::string>{"the X server is gone"});
    for (std::size_t i = 1; i < frames.size(); ++i) EXPECT_GT(frames[i].ptsMicros, frames[i - 1].ptsMicros);
}

TEST_F(ScreenStreamerFlowTest, isThrownAwayInTheMidstOfIt)
{
    lab::XDrawing drawing(server.display());
    for (int run = 0; run < 15; ++run) {
        auto streamer = makeStreamer(run % 2 == 0);
        streamer->start([](Result<void, ScreenStreamerError>) {});
        if (run % 3 == 0) continue; // at once
        ASSERT_TRUE(waitUntil([&] { return !frames.empty(); }));
        drawing.fill(0, 0, 400, 400, static_cast<std::uint32_t>(run * 99));
        streamer->requestKeyframe();
        streamer->update(0.5);
        if (run % 3 == 1) streamer->stop();
        note([&] { frames.clear(); });
    }
}

} // namespace
} // namespace pelorin
