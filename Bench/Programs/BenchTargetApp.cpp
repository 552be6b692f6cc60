// pelorin-bench-target flip|type|motion [--fps N]: what a measurement looks at, over the whole of $DISPLAY
// until it is killed. flip: black or white, changing with every key press. type: the same in a part of the
// screen as large as an application redraws for a key. motion: lines like text that scroll,
// redrawn N times a second (60 unless told), each frame with its number as FrameMark draws it. Prints "ready"
// when it shows.

#include "PelorinViewer/FrameMark.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <string_view>
#include <vector>
#include <xcb/xcb.h>

namespace {

using pelorin::FrameMark;

constexpr int defaultFps = 60;

// The scrolling page repeats after this many screens; each frame moves it by scrollStep pixels.
constexpr int pageScreens = 2;
constexpr int scrollStep = 4;

// Changes with a key in type: some lines of text.
constexpr int typedWidth = 416;
constexpr int typedHeight = 304;

constexpr int lineHeight = 18;
constexpr int letterHeight = 11;
constexpr int letterWidth = 7;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

// A window over the whole screen, above a window manager's, with the keyboard's focus.
class Target {
public:
    Target() : connection(xcb_connect(nullptr, nullptr))
    {
        if (xcb_connection_has_error(connection) != 0) {
            std::fprintf(stderr, "no X server at DISPLAY\n");
            std::exit(1);
        }
        screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
        width = screen->width_in_pixels;
        height = screen->height_in_pixels;
        window = xcb_generate_id(connection);
        const std::uint32_t attributes[]
            = {screen->black_pixel, 1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_EXPOSURE};
        xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, width, height, 0,
            XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
            XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, attributes);
        graphics = xcb_generate_id(connection);
        const std::uint32_t noExposures = 0;
        xcb_create_gc(connection, graphics, window, XCB_GC_GRAPHICS_EXPOSURES, &noExposures);
        xcb_map_window(connection, window);
        xcb_set_input_focus(connection, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
        finishRequests();
        std::printf("ready\n");
        std::fflush(stdout);
    }
    ~Target() { xcb_disconnect(connection); }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    void flip(const xcb_rectangle_t& part)
    {
        for (bool isWhite = false;;) {
            const std::unique_ptr<xcb_generic_event_t, Free> event(xcb_wait_for_event(connection));
            if (!event) return;
            const int type = event->response_type & 0x7F;
            if (type == XCB_KEY_PRESS) isWhite = !isWhite;
            if (type != XCB_KEY_PRESS && type != XCB_EXPOSE) continue;
            fill(window, isWhite ? screen->white_pixel : screen->black_pixel, {part});
            xcb_flush(connection);
        }
    }

    xcb_rectangle_t wholeScreen() const { return {0, 0, width, height}; }
    xcb_rectangle_t middle() const
    {
        return {static_cast<std::int16_t>((width - typedWidth) / 2),
            static_cast<std::int16_t>((height - typedHeight) / 2), typedWidth, typedHeight};
    }

    // Every frame is put together out of sight and copied in one request, so that the screen never holds
    // parts of two.
    void motion(int fps)
    {
        const xcb_pixmap_t page = drawPage();
        const xcb_pixmap_t frame = makePixmap(height);
        timespec due{};
        clock_gettime(CLOCK_MONOTONIC, &due);
        for (std::uint32_t number = 0; isConnected(); number = (number + 1) & ((1U << FrameMark::bits) - 1)) {
            const int offset
                = static_cast<int>(number % (static_cast<std::uint32_t>(height) / scrollStep)) * scrollStep;
            copy(page, frame, offset);
            drawMark(frame, number);
            copy(frame, window, 0);
            finishRequests(); // a slow server gets fewer frames, not a backlog
            dropEvents();
            waitForNext(due, fps);
        }
    }

private:
    bool isConnected() const { return xcb_connection_has_error(connection) == 0; }

    void finishRequests()
    {
        std::unique_ptr<xcb_get_input_focus_reply_t, Free>(
            xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    }

    void dropEvents()
    {
        while (std::unique_ptr<xcb_generic_event_t, Free>(xcb_poll_for_event(connection))) {}
    }

    // Absolute times, so that the rate holds; what was missed is not made up for.
    static void waitForNext(timespec& due, int fps)
    {
        constexpr long second = 1'000'000'000;
        due.tv_nsec += second / fps;
        if (due.tv_nsec >= second) {
            due.tv_nsec -= second;
            ++due.tv_sec;
        }
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec > due.tv_sec || (now.tv_sec == due.tv_sec && now.tv_nsec > due.tv_nsec))
            due = now;
        else
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
    }

    xcb_pixmap_t makePixmap(int pixmapHeight)
    {
        const xcb_pixmap_t pixmap = xcb_generate_id(connection);
        xcb_create_pixmap(
            connection, screen->root_depth, pixmap, window, width, static_cast<std::uint16_t>(pixmapHeight));
        return pixmap;
    }

    void fill(xcb_drawable_t drawable, std::uint32_t colour, const std::vector<xcb_rectangle_t>& rectangles)
    {
        xcb_change_gc(connection, graphics, XCB_GC_FOREGROUND, &colour);
        xcb_poly_fill_rectangle(
            connection, drawable, graphics, static_cast<std::uint32_t>(rectangles.size()), rectangles.data());
    }

    void copy(xcb_drawable_t from, xcb_drawable_t to, int fromY)
    {
        xcb_copy_area(
            connection, from, to, graphics, 0, static_cast<std::int16_t>(fromY), 0, 0, width, height);
    }

    // Lines of word-like strokes; the second screen repeats the first, so that scrolling by up to one is
    // seamless.
    xcb_pixmap_t drawPage()
    {
        const xcb_pixmap_t page = makePixmap(height * pageScreens);
        fill(page, 0xF4F1EA, {{0, 0, width, static_cast<std::uint16_t>(height * pageScreens)}});
        std::minstd_rand random(1);
        for (int y = lineHeight; y + letterHeight < height; y += lineHeight) {
            std::vector<xcb_rectangle_t> strokes;
            for (int x = 24; x + letterWidth < width - 24; x += letterWidth) {
                if (random() % 6 == 0) continue; // between words
                const auto top = static_cast<std::int16_t>(y + static_cast<int>(random() % 4));
                const auto bar = static_cast<std::int16_t>(y + static_cast<int>(random() % letterHeight));
                for (int screens = 0; screens < pageScreens; ++screens) {
                    const auto down = static_cast<std::int16_t>(screens * height);
                    const auto left = static_cast<std::int16_t>(x + static_cast<int>(random() % 2));
                    strokes.push_back({left, static_cast<std::int16_t>(top + down), 1, letterHeight - 3});
                    strokes.push_back(
                        {static_cast<std::int16_t>(x), static_cast<std::int16_t>(bar + down), 5, 1});
                }
            }
            fill(page, random() % 5 == 0 ? 0x2456A8 : 0x202428, strokes);
        }
        return page;
    }

    void drawMark(xcb_drawable_t drawable, std::uint32_t number)
    {
        const int side = FrameMark::blockSide(width);
        std::vector<xcb_rectangle_t> ones;
        std::vector<xcb_rectangle_t> zeros;
        for (int i = 0; i < FrameMark::bits; ++i) {
            auto& blocks = (number >> (FrameMark::bits - 1 - i) & 1) != 0 ? ones : zeros;
            for (const int y : {0, height - side})
                blocks.push_back({static_cast<std::int16_t>(i * side), static_cast<std::int16_t>(y),
                    static_cast<std::uint16_t>(side), static_cast<std::uint16_t>(side)});
        }
        fill(drawable, screen->black_pixel, zeros);
        fill(drawable, screen->white_pixel, ones);
    }

    xcb_connection_t* connection;
    xcb_screen_t* screen = nullptr;
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    xcb_window_t window = 0;
    xcb_gcontext_t graphics = 0;
};

} // namespace

int main(int count, char** arguments)
{
    const std::string_view mode = count > 1 ? arguments[1] : "";
    const bool hasFps = count == 4 && std::string_view(arguments[2]) == "--fps";
    const int fps = hasFps ? std::atoi(arguments[3]) : defaultFps;
    if ((mode != "flip" && mode != "type" && mode != "motion") || (count != 2 && !hasFps) || fps < 1
        || fps > 1000)
        return std::fprintf(stderr, "usage: %s flip|type|motion [--fps N]\n", arguments[0]), 2;
    Target target;
    if (mode == "flip")
        target.flip(target.wholeScreen());
    else if (mode == "type")
        target.flip(target.middle());
    else
        target.motion(fps);
}
