#include "PelorinHost/Linux/X11DisplayCapture.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/XDrawing.h"
#include "Tests/Lab/XServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

struct Yuv {
    int y = 0, cb = 0, cr = 0;
    bool operator==(const Yuv&) const = default;
};
constexpr Yuv black{16, 128, 128};
constexpr Yuv red{63, 102, 240}; // 0xFF0000, by the matrix of BT.709
constexpr Yuv white{235, 128, 128};

// A stream on a real server, driven by hand on a virtual clock.
struct StreamTest : testing::Test {
    explicit StreamTest(lab::XServer::Options options = {.widthPx = 640, .heightPx = 480, .extraArguments = {}})
        : server(std::move(options)),
          capture(server.display())
    {
    }

    void start(CaptureConfiguration configuration)
    {
        const auto displays = capture.shareableDisplays();
        ASSERT_FALSE(displays.empty());
        start(displays.front().id, configuration);
    }

    void start(std::uint32_t displayID, CaptureConfiguration configuration)
    {
        queue->post([&] {
            auto made = capture.makeStream(displayID, configuration, queue);
            ASSERT_TRUE(made) << made.error().description;
            stream = std::move(*made);
            stream->onSample = [this](const CaptureSample& sample) { samples.push_back(sample); };
            stream->onStopped = [this](const PlatformError& error) { stops.push_back(error.description); };
            stream->onGeometryChanged
                = [this](const ShareableDisplay& display) { changes.push_back(display); };
            ASSERT_TRUE(stream->start());
        });
        queues.runReady();
    }

    // Runs the queues, with time going on, until the condition holds.
    template <class Condition>
    [[nodiscard]] bool runUntil(Condition condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            queues.advance(20ms);
            poll(nullptr, 0, 1);
        }
        return true;
    }
    [[nodiscard]] bool nextSample()
    {
        const auto before = samples.size();
        return runUntil([&] { return samples.size() > before; });
    }
    // Once this returns, whatever the server had to say has arrived and was dealt with.
    void settle()
    {
        for (int i = 0; i < 20; ++i) {
            queues.advance(20ms);
            poll(nullptr, 0, 1);
        }
    }

    const PixelBuffer& picture() const { return *samples.back().picture; }
    Yuv pixel(int x, int y) const
    {
        const auto& p = picture();
        const auto* chroma = p.chroma + y / 2 * p.chromaStride + (x & ~1);
        return {p.luma[y * p.lumaStride + x], chroma[0], chroma[1]};
    }

    lab::XServer server;
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("capture");
    X11DisplayCapture capture;
    std::unique_ptr<CaptureStream> stream;
    std::vector<CaptureSample> samples;
    std::vector<std::string> stops;
    std::vector<ShareableDisplay> changes;
};
using X11CaptureStreamTest = StreamTest;

TEST_F(X11CaptureStreamTest, bringsTheWholeScreenFirstAndThenOnlyWhatChanged)
{
    lab::XDrawing drawing(server.display());
    drawing.fill(100, 100, 50, 40, 0xFF0000);
    start({640, 480, 60, false});
    ASSERT_EQ(samples.size(), 1U);
    EXPECT_THAT(picture().damage, ElementsAre(PixelRect{0, 0, 640, 480}));
    EXPECT_EQ(pixel(0, 0), black);
    EXPECT_EQ(pixel(100, 100), red);
    EXPECT_EQ(pixel(149, 139), red);
    EXPECT_EQ(pixel(150, 140), black);

    drawing.fill(301, 201, 10, 10, 0xFFFFFF);
    ASSERT_TRUE(nextSample());
    EXPECT_THAT(picture().damage, ElementsAre(PixelRect{300, 200, 12, 12}));
    EXPECT_EQ(pixel(302, 202), white);
    EXPECT_EQ(pixel(120, 120), red);
    EXPECT_EQ(picture().sequence, samples.front().picture->sequence + 1);
}

} // namespace
} // namespace pelorin
