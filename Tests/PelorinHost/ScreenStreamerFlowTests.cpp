#include "PelorinHost/Linux/LinuxCompression.h"
#include "PelorinHost/Linux/X11DisplayCapture.h"
#include "PelorinHost/Screen/ScreenStreamer.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/XDrawing.h"
#include "Tests/Lab/XServer.h"

#include <gtest/gtest.h>

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

    lab::XServer server;
    X11DisplayCapture capture{server.display()};
    LinuxCompression compression;
    std::mutex lock; // guards what callbacks fill in
    std::condition_variable changed;
    std::vector<EncodedFrame> frames;
    QueuePool pool{2};
};

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
