#include "PelorinViewer/ViewerWindow.h"

#include "PelorinCore/Keys/MacKey.h"
#include "PelorinHost/Linux/XtestEventPosting.h"
#include "PelorinNet/Queue/QueuePool.h"
#include "Tests/Lab/Picture.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/WindowManager.h"
#include "Tests/PelorinViewer/TestPicture.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>
#include <png.h>
#include <thread>

using namespace pelorin;
using lab::eventually;
using lab::TestPicture;

namespace {

constexpr int screenWidth = 1400;
constexpr int screenHeight = 900;

// The window on a real X server with a window manager, real input from XTEST.
class ViewerWindowTest : public testing::Test {
protected:
    ViewerWindowTest()
    {
        setenv("DISPLAY", server.display().c_str(), 1);
        // Else SDL would start a message bus on this display, which outlives the test.
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        // The same on every machine, and without graphics drivers, which leave memory behind.
        setenv("SDL_RENDER_DRIVER", "software", 1);
        setenv("SDL_FRAMEBUFFER_ACCELERATION", "0", 1);
        input.onMouseMove = [this](double dx, double) { change([dx](Told& told) { told.movedX += dx; }); };
        input.onMouseButton = [this](MouseButton button, bool isDown) {
            change([=](Told& told) { told.buttons.emplace_back(button, isDown); });
        };
        input.onWheel = [this](double, double y) { change([y](Told& told) { told.wheelY += y; }); };
        input.onMessage = [this](const Message& message) {
            change([&](Told& told) { told.messages.push_back(message); });
        };
        input.onDrew = [this](Duration) { change([](Told& told) { ++told.drawn; }); };
        input.onClosed = [] {};
        onHands([this] { hands = std::make_unique<XtestEventPosting>(handsQueue, server.display()); });
    }
    ~ViewerWindowTest() override
    {
        onHands([this] { hands.reset(); });
        unsetenv("DISPLAY");
    }

    // Runs the window on this thread while the story is told on another.
    void tell(const std::function<void()>& story, bool showsFigures = false)
    {
        auto opened = ViewerWindow::open(showsFigures);
        ASSERT_TRUE(opened) << opened.error();
        window = std::move(*opened);
        std::thread teller([&] {
            story();
            window->close();
        });
        window->run(input);
        teller.join();
        window.reset();
    }

    void onHands(std::function<void()> task)
    {
        std::promise<void> done;
        handsQueue->post([&] {
            task();
            done.set_value();
        });
        done.get_future().wait();
    }
    void moveTo(double x, double y)
    {
        onHands([=, this] { hands->postPointer(PointerEventType::moved, {x, y}, 0, 0); });
    }
    void press(MouseButton button, bool isDown)
    {
        onHands([=, this] { hands->postButton(button, isDown, {screenWidth / 2.0, screenHeight / 2.0}, 1); });
    }
    void key(std::uint16_t code, bool isDown)
    {
        onHands([=, this] { hands->postKey(code, isDown, {}, false); });
    }

    struct Told {
        double movedX = 0;
        double wheelY = 0;
        std::vector<std::pair<MouseButton, bool>> buttons;
        std::vector<Message> messages;
        int drawn = 0;

        bool has(const Message& message) const { return std::ranges::count(messages, message) > 0; }
    };
    void change(const std::function<void(Told&)>& how)
    {
        const std::lock_guard guard(lock);
        how(told);
    }
    bool eventuallyTold(const std::function<bool(const Told&)>& what)
    {
        return eventually([&] {
            const std::lock_guard guard(lock);
            return what(told);
        });
    }
    int whitePixels() const
    {
        const auto screen = lab::Picture::ofScreen(server.display());
        int count = 0;
        for (std::size_t at = 0; at + 2 < screen.pixels.size(); at += 3)
            count += screen.pixels[at] > 250 && screen.pixels[at + 1] > 250 && screen.pixels[at + 2] > 250;
        return count;
    }
    static ReceivedPicture received(const TestPicture& picture)
    {
        ReceivedPicture received;
        received.picture = picture.get();
        received.decodedAt = std::chrono::steady_clock::now();
        return received;
    }

    lab::XServer server{
        {.widthPx = screenWidth, .heightPx = screenHeight, .isXorg = false, .extraArguments = {}}};
    std::unique_ptr<lab::Process> manager = lab::startWindowManager(server);
    QueuePool pool{2};
    QueueRef handsQueue = pool.makeQueue("hands");
    std::unique_ptr<XtestEventPosting> hands;
    std::unique_ptr<ViewerWindow> window;
    WindowInput input;
    std::mutex lock; // guards told
    Told told;
};

TEST_F(ViewerWindowTest, fitsPicturesAndDrawsFiguresOverThem)
{
    tell([this] {
        window->show(received(TestPicture(100, 200, 235))); // upright: bars at the sides
        // 720 rows high and half as wide.
        EXPECT_TRUE(eventually([this] { return std::abs(whitePixels() - 720 * 360) < 4000; }))
            << whitePixels();
        const int plain = whitePixels();
        window->show(received(TestPicture(1280, 720, 235)));
        EXPECT_TRUE(eventually([&] { return whitePixels() > 2 * plain; })) << whitePixels();
        EXPECT_TRUE(eventuallyTold([](const Told& so) { return so.drawn == 2; }));

        const int whole = whitePixels();
        window->setFigures(PhoneFigures{});
        moveTo(screenWidth / 2.0, screenHeight / 2.0);
        key(MacKey::f9, true);
        key(MacKey::f9, false);
        EXPECT_TRUE(eventually([&] { return whitePixels() < whole - 20'000; })) << whole - whitePixels();
        key(MacKey::f9, true);
        key(MacKey::f9, false);
        EXPECT_TRUE(eventually([&] { return whitePixels() == whole; }));
    });
    EXPECT_FALSE(told.has(message::Key{MacKey::f9, true, keyModifier::none}));
}

message::CursorImage whiteCursor(int side)
{
    const Bytes white(static_cast<std::size_t>(side * side * 4), 0xFF);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = image.height = static_cast<png_uint_32>(side);
    image.format = PNG_FORMAT_RGBA;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    Bytes png(size);
    EXPECT_TRUE(png_image_write_to_memory(&image, png.data(), &size, 0, white.data(), 0, nullptr));
    png.resize(size);
    const auto points = static_cast<float>(side) / 2; // on a display of two pixels to a point
    return {1, points / 2, points / 2, points, points, png};
}

TEST_F(ViewerWindowTest, drawsTheHostsPointerInThePictureAndNotBeyond)
{
    tell([this] {
        window->show(received(TestPicture(1280, 720))); // as large as the window
        CursorPredictor pointer;
        pointer.displayIs(640, 360);
        const auto put = [&](float x, float y) {
            CursorPredictor moved = pointer;
            moved.reported({x, y, 0}, std::chrono::steady_clock::now());
            window->setPointer(moved);
        };
        put(320, 180);
        window->setCursor({1, 0, 0, 10, 10, Bytes{1, 2, 3}}); // not a PNG: nothing to draw
        window->setCursor(whiteCursor(2000)); // nor is what no desktop has
        EXPECT_TRUE(eventuallyTold([](const Told& so) { return so.drawn == 1; }));
        const int others = whitePixels(); // of the window's frame
        const auto cursorPixels = [&] { return whitePixels() - others; };
        window->setCursor(whiteCursor(40));
        EXPECT_TRUE(eventually([&] { return cursorPixels() == 40 * 40; })) << cursorPixels();
        put(0, 180);
        EXPECT_TRUE(eventually([&] { return cursorPixels() == 20 * 40; })) << cursorPixels();
        put(-300, 180); // on another display
        EXPECT_TRUE(eventually([&] { return cursorPixels() == 0; })) << cursorPixels();
    });
}

TEST_F(ViewerWindowTest, takesMouseAndKeyboardOnAClickAndGivesThemBackWithNothingHeld)
{
    tell([this] {
        window->show(received(TestPicture(64, 48, 235)));
        EXPECT_TRUE(eventually([this] { return whitePixels() > 100'000; }));
        moveTo(screenWidth / 2.0, screenHeight / 2.0);
        press(MouseButton::left, true);
        press(MouseButton::left, false);
        // Captured once it tells of motion; the click that did it is not told.
        double x = screenWidth / 2.0;
        EXPECT_TRUE(eventually([&] {
            moveTo(x += 3, screenHeight / 2.0);
            const std::lock_guard guard(lock);
            return told.movedX > 0;
        }));
        press(MouseButton::right, true);
        key(MacKey::a, true);
        EXPECT_TRUE(eventuallyTold([](const Told& so) {
            return so.has(message::Key{MacKey::a, true, keyModifier::none})
                && so.buttons == std::vector{std::pair{MouseButton::right, true}};
        }));
        onHands([this] { hands->postScroll(0, 480, ScrollPhase::changed, MomentumPhase::none); });
        EXPECT_TRUE(eventuallyTold([](const Told& so) { return so.wheelY > 0; }));

        key(MacKey::rightControl, true);
        key(MacKey::rightControl, false);
        EXPECT_TRUE(eventuallyTold([](const Told& so) {
            return so.has(message::Key{MacKey::a, false, keyModifier::none}) && !so.buttons.empty()
                && so.buttons.back() == std::pair{MouseButton::right, false};
        }));
        key(MacKey::a, false);
        press(MouseButton::right, false);
    });
    EXPECT_FALSE(told.has(message::Text{"a"})); // typed as a key already
    EXPECT_EQ(told.buttons.size(), 2U);
}

TEST_F(ViewerWindowTest, letsGoWhenAnotherWindowTakesTheKeyboard)
{
    tell([this] {
        window->show(received(TestPicture(64, 48, 235)));
        EXPECT_TRUE(eventually([this] { return whitePixels() > 100'000; }));
        moveTo(screenWidth / 2.0, screenHeight / 2.0);
        key(MacKey::b, true);
        EXPECT_TRUE(eventuallyTold(
            [](const Told& so) { return so.has(message::Key{MacKey::b, true, keyModifier::none}); }));
        const auto other = server.launch({"xterm"});
        EXPECT_TRUE(eventuallyTold(
            [](const Told& so) { return so.has(message::Key{MacKey::b, false, keyModifier::none}); }));
        key(MacKey::b, false);
    });
}

} // namespace
