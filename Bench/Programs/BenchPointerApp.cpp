#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <vector>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

// Moves the mouse on the display that a viewer's window is on, and takes the time until the window shows the
// pointer elsewhere:
//
//   pelorin-bench-pointer MOVES
//
// The window must cover the screen's middle and have taken the mouse, and nothing else on the screen may
// change. Prints {"n", "lost", "p50Ms", "p95Ms", "highestMs", "jumps"}: lost moves changed nothing within a
// second; jumps are moves after which the picture changed once more, half a second later, when the host's
// answer had come.
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int side = 400; // of what is looked at, in the middle of the screen
// There and not quite back: a window that takes relative motion by warping the pointer to its middle
// overlooks a move that leads there by itself.
constexpr int strides[] = {24, -23};
constexpr auto answerTime = 500ms;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

class Screen {
public:
    explicit Screen(xcb_connection_t* newConnection)
        : connection(newConnection),
          screen(*xcb_setup_roots_iterator(xcb_get_setup(connection)).data)
    {
    }

    std::vector<std::uint8_t> middle() const
    {
        const auto x = static_cast<std::int16_t>((screen.width_in_pixels - side) / 2);
        const auto y = static_cast<std::int16_t>((screen.height_in_pixels - side) / 2);
        const std::unique_ptr<xcb_get_image_reply_t, Free> image(xcb_get_image_reply(connection,
            xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen.root, x, y, side, side, ~0U),
            nullptr));
        if (!image) return {};
        const auto* pixels = xcb_get_image_data(image.get());
        return {pixels, pixels + xcb_get_image_data_length(image.get())};
    }
    void move(int dx)
    {
        xcb_test_fake_input(connection, XCB_MOTION_NOTIFY, 1, XCB_CURRENT_TIME, XCB_NONE,
            static_cast<std::int16_t>(dx), 0, 0);
        xcb_flush(connection);
    }
    void click()
    {
        for (const std::uint8_t type : {XCB_BUTTON_PRESS, XCB_BUTTON_RELEASE})
            xcb_test_fake_input(connection, type, 1, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        xcb_flush(connection);
    }
    void goToTheMiddle()
    {
        xcb_test_fake_input(connection, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, screen.root,
            static_cast<std::int16_t>(screen.width_in_pixels / 2),
            static_cast<std::int16_t>(screen.height_in_pixels / 2), 0);
        xcb_flush(connection);
    }
    bool isFine() const { return xcb_connection_has_error(connection) == 0; }

private:
    xcb_connection_t* connection;
    const xcb_screen_t& screen;
};

// Milliseconds until the screen looks different; nothing when it never did.
std::optional<double> timeOf(Screen& screen, int dx, std::vector<std::uint8_t>& picture)
{
    const auto start = Clock::now();
    screen.move(dx);
    while (screen.isFine() && Clock::now() - start < 1s) {
        auto now = screen.middle();
        if (now == picture) continue;
        picture = std::move(now);
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    return std::nullopt;
}

} // namespace

int main(int count, char** arguments)
{
    const int moves = count == 2 ? std::atoi(arguments[1]) : 0;
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (moves <= 0 || xcb_connection_has_error(connection)) {
        std::fprintf(stderr, "pelorin-bench-pointer MOVES, on a display\n");
        return 2;
    }
    Screen screen(connection);
    screen.goToTheMiddle();
    screen.click(); // the window takes the mouse
    std::this_thread::sleep_for(answerTime);
    std::vector<double> times;
    int lost = 0;
    int jumps = 0;
    for (int i = 0; i < moves; ++i) {
        auto picture = screen.middle();
        const auto time = timeOf(screen, strides[i % 2], picture);
        std::this_thread::sleep_for(answerTime);
        if (!time) {
            ++lost;
            continue;
        }
        times.push_back(*time);
        jumps += screen.middle() != picture;
    }
    std::ranges::sort(times);
    const auto at = [&](double share) {
        return times.empty() ? -1.0 : times[static_cast<std::size_t>(share * double(times.size() - 1))];
    };
    std::printf(
        "{\"n\": %zu, \"lost\": %d, \"p50Ms\": %.2f, \"p95Ms\": %.2f, \"highestMs\": %.2f, \"jumps\": %d}\n",
        times.size(), lost, at(0.5), at(0.95), at(1), jumps);
    xcb_disconnect(connection);
}
