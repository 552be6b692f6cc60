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

// Counts what runs on a queue.
class WatchedQueue final : public SerialQueue {
public:
    explicit WatchedQueue(QueueRef newInner) : inner(std::move(newInner)) {}

    void post(Task task) override { inner->post(counted(std::move(task))); }
    Subscription after(Duration delay, Task task) override
    {
        return inner->after(delay, counted(std::move(task)));
    }
    void postAfter(Duration delay, Task task) override { inner->postAfter(delay, counted(std::move(task))); }
    Subscription whenReadable(int fd, std::function<void()> task) override
    {
        return inner->whenReadable(fd, [this, task = std::move(task)] {
            ++tasks;
            task();
        });
    }
    SteadyTime now() const override { return inner->now(); }
    WallTime wallNow() const override { return inner->wallNow(); }
    bool isCurrent() const override { return inner->isCurrent(); }
    const std::string& label() const override { return inner->label(); }

    int tasks = 0;

private:
    Task counted(Task task)
    {
        return [this, task = std::move(task)]() mutable {
            ++tasks;
            task();
        };
    }
    QueueRef inner;
};

std::vector<std::uint8_t> pixelsOf(const PixelBuffer& p)
{
    std::vector<std::uint8_t> all;
    for (int y = 0; y < p.heightPx; ++y)
        all.insert(all.end(), p.luma + y * p.lumaStride, p.luma + y * p.lumaStride + p.widthPx);
    for (int y = 0; y < p.heightPx / 2; ++y)
        all.insert(all.end(), p.chroma + y * p.chromaStride, p.chroma + y * p.chromaStride + p.widthPx);
    return all;
}

// A stream on a real server, driven by hand on a virtual clock.
struct StreamTest : testing::Test {
    explicit StreamTest(
        lab::XServer::Options options = {.widthPx = 640, .heightPx = 480, .extraArguments = {}})
        : server(std::move(options)),
          capture(server.display())
    {
    }

    void start(CaptureConfiguration configuration)
    {
        const auto displays = capture.shareableDisplays();
        ASSERT_FALSE(displays.empty());
        queue->post([&] {
            auto made = capture.makeStream(displays.front().id, configuration, queue);
            ASSERT_TRUE(made) << made.error().description;
            stream = std::move(*made);
            stream->onSample = [this](const CaptureSample& sample) { samples.push_back(sample); };
            stream->onStopped = [this](const PlatformError& error) { stops.push_back(error.description); };
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
    [[nodiscard]] bool nextSampleInNoTime()
    {
        const auto before = samples.size();
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (samples.size() == before && std::chrono::steady_clock::now() < deadline) {
            queues.runReady();
            poll(nullptr, 0, 1);
        }
        return samples.size() > before;
    }
    // Once this returns, whatever the server had to say has arrived and was dealt with.
    void settle()
    {
        if (const auto other = X11Connection::open(server.display())) lab::waitForServer(*other);
        for (int i = 0; i < 10; ++i) queues.advance(20ms);
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
    std::shared_ptr<WatchedQueue> watched = std::make_shared<WatchedQueue>(queues.makeQueue("capture"));
    QueueRef queue = watched;
    X11DisplayCapture capture;
    std::unique_ptr<CaptureStream> stream;
    std::vector<CaptureSample> samples;
    std::vector<std::string> stops;
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

TEST_F(X11CaptureStreamTest, leavesAStillScreenAlone)
{
    start({640, 480, 60, true});
    settle();
    samples.clear();
    const auto tasksBefore = watched->tasks;
    queues.advance(300s);
    settle();
    EXPECT_TRUE(samples.empty());
    EXPECT_EQ(watched->tasks, tasksBefore) << "woke up with nothing to do";
}

TEST_F(X11CaptureStreamTest, pacesPicturesAndShowsTheLatestOfThem)
{
    lab::XDrawing drawing(server.display());
    start({640, 480, 10, false});
    settle();
    samples.clear();
    drawing.fill(0, 0, 20, 20, 0xFF0000);
    ASSERT_TRUE(nextSampleInNoTime()); // after a quiet spell at once
    drawing.fill(0, 0, 20, 20, 0x00FF00);
    ASSERT_TRUE(nextSample());
    const auto second = queues.now();
    drawing.fill(0, 0, 20, 20, 0x0000FF);
    drawing.fill(100, 0, 20, 20, 0xFFFFFF);
    drawing.fill(0, 0, 20, 20, 0xFFFFFF);
    ASSERT_TRUE(nextSample());
    EXPECT_GE(queues.now() - second, 80ms);
    EXPECT_EQ(pixel(4, 4), white);
    EXPECT_EQ(pixel(104, 4), white);
    EXPECT_LT(samples.back().presentationTime, queues.now()); // of the change, not of the picture
    settle();
    EXPECT_EQ(samples.size(), 3U);
}

TEST_F(X11CaptureStreamTest, scalesWhatChangedAsItScalesTheWhole)
{
    lab::XDrawing drawing(server.display());
    drawing.noise(640, 480, 1);
    start({500, 374, 60, false});
    ASSERT_EQ(samples.size(), 1U);
    for (int i = 0; i < 5; ++i) {
        drawing.fill(37 * i, 51 * i, 3 + i, 7, 0xFF8800);
        drawing.fill(600 - 20 * i, 470, 5, 5, 0x0088FF);
        ASSERT_TRUE(nextSample());
        EXPECT_NE(picture().damage.front(), (PixelRect{0, 0, 500, 374}));
    }
    settle();
    const auto piecewise = pixelsOf(picture());
    queue->post([&] { EXPECT_TRUE(stream->updateConfiguration({500, 374, 60, false})); });
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(picture().damage.front(), (PixelRect{0, 0, 500, 374}));
    EXPECT_EQ(pixelsOf(picture()), piecewise);
}

TEST_F(X11CaptureStreamTest, drawsTheCursorAndLeavesNoTrail)
{
    lab::XDrawing drawing(server.display());
    drawing.setCursorSquare(8, 0xFF0000);
    drawing.movePointer(100, 100);
    start({640, 480, 60, true});
    EXPECT_EQ(pixel(100, 100), red);
    EXPECT_EQ(pixel(107, 107), red);
    EXPECT_EQ(pixel(108, 108), black);

    settle();
    samples.clear();
    drawing.movePointer(300, 200); // alone makes a picture
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(300, 200), red);
    EXPECT_EQ(pixel(100, 100), black);
    EXPECT_THAT(picture().damage, ElementsAre(PixelRect{100, 100, 8, 8}, PixelRect{300, 200, 8, 8}));

    drawing.setCursorSquare(8, 0xFFFFFF); // so does another shape
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(303, 203), white);

    drawing.fill(290, 190, 40, 40, 0xFF0000); // drawing below it goes on below it
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(303, 203), white);
    EXPECT_EQ(pixel(310, 210), red);

    drawing.movePointer(636, 476); // half off the screen
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(638, 478), white);
    EXPECT_EQ(pixel(303, 203), red);

    queue->post([&] { EXPECT_TRUE(stream->updateConfiguration({640, 480, 60, false})); });
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(638, 478), black);
    settle();
    samples.clear();
    drawing.movePointer(50, 50);
    settle();
    EXPECT_TRUE(samples.empty()); // the phone draws it
}

TEST_F(X11CaptureStreamTest, stopsOnceWhenTheServerDies)
{
    start({640, 480, 60, true});
    server.kill();
    queue->post([&] { EXPECT_FALSE(stream->captureStill({640, 480, 60, true})); }); // writes to nobody
    ASSERT_TRUE(runUntil([&] { return !stops.empty(); }));
    EXPECT_THAT(stops, ElementsAre("the X server is gone"));
    const auto tasksBefore = watched->tasks;
    settle();
    EXPECT_EQ(watched->tasks, tasksBefore);
    queue->post([&] {
        EXPECT_FALSE(stream->captureStill({640, 480, 60, false}));
        EXPECT_FALSE(stream->updateConfiguration({320, 240, 60, true}));
    });
    settle();
    EXPECT_EQ(stops.size(), 1U);
    EXPECT_TRUE(capture.shareableDisplays().empty());

    server.restart(); // as a new run finds it
    start({640, 480, 60, false});
    EXPECT_EQ(picture().widthPx, 640);
}

TEST_F(X11CaptureStreamTest, doesNotWaitForEverForAServerThatIsStopped)
{
    lab::XDrawing drawing(server.display());
    start({640, 480, 60, true});
    settle();
    server.pause();
    queue->post([&] {
        const auto still = stream->captureStill({640, 480, 60, true});
        ASSERT_FALSE(still);
        EXPECT_EQ(still.error().description, "the X server does not answer");
    });
    queues.runReady();
    EXPECT_EQ(capture.shareableDisplays().size(), 1U); // as far as is known

    server.resume();
    drawing.fill(0, 0, 10, 10, 0xFF0000);
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(pixel(8, 8), red);
    EXPECT_THAT(picture().damage, ElementsAre(PixelRect{0, 0, 640, 480}));
    EXPECT_TRUE(stops.empty());
}

TEST_F(X11CaptureStreamTest, mayBeDestroyedByItsOwnCallback)
{
    start({640, 480, 60, false});
    queue->post([&] {
        stream->onSample = [&](const CaptureSample& sample) {
            samples.push_back(sample);
            stream.reset();
        };
        EXPECT_TRUE(stream->updateConfiguration({320, 240, 60, false}));
    });
    ASSERT_TRUE(nextSample());
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(picture().luma[0], 16); // the picture outlives it
}

TEST_F(X11CaptureStreamTest, saysWhatItCanNotCapture)
{
    const struct {
        const char* what;
        std::vector<std::string> arguments;
        const char* expected;
    } rows[] = {
        {"16 bits", {"-screen", "0", "320x240x16"}, "the screen's pixels are not 32-bit BGRX"},
        {"no shared memory", {"-extension", "MIT-SHM"}, "the X server has no MIT-SHM"},
        {"no damage", {"-extension", "DAMAGE"}, "the X server has no DAMAGE"},
    };
    for (const auto& [what, arguments, expected] : rows) {
        lab::XServer other({.extraArguments = arguments});
        X11DisplayCapture refused(other.display());
        const auto displays = refused.shareableDisplays();
        ASSERT_FALSE(displays.empty()) << what;
        queue->post([&] {
            const auto made = refused.makeStream(displays[0].id, {320, 240, 60, false}, queue);
            ASSERT_FALSE(made) << what;
            EXPECT_THAT(made.error().description, testing::StartsWith(expected));
        });
        queues.runReady();
    }
}

struct X11MonitorsTest : StreamTest {
    X11MonitorsTest() : StreamTest({.widthPx = 800, .heightPx = 600, .isXorg = true, .extraArguments = {}}) {}
};

TEST_F(X11MonitorsTest, seesOnlyItsOwnMonitorAndOffersThePrimaryOneFirst)
{
    server.run(
        {"xrandr", "--newmode", "small", "40", "640", "648", "656", "664", "480", "482", "484", "486"});
    server.run({"xrandr", "--addmode", "DUMMY1", "small"});
    server.run({"xrandr", "--output", "DUMMY1", "--mode", "small", "--right-of", "DUMMY0", "--primary"});
    lab::XDrawing drawing(server.display());
    drawing.fill(800, 0, 10, 10, 0xFF0000);
    start({640, 480, 60, false});
    EXPECT_EQ(pixel(0, 0), red);
    EXPECT_EQ(pixel(10, 10), black);
    settle();
    samples.clear();

    drawing.fill(100, 100, 300, 300, 0xFFFFFF); // on the other
    settle();
    EXPECT_TRUE(samples.empty());
    drawing.fill(780, 20, 40, 10, 0xFFFFFF); // on both
    ASSERT_TRUE(nextSample());
    EXPECT_THAT(picture().damage, ElementsAre(PixelRect{0, 20, 20, 10}));
    EXPECT_EQ(pixel(19, 20), white);
    EXPECT_EQ(pixel(20, 20), black);
}

} // namespace
} // namespace pelorin
