#include "Tests/Lab/XDrawing.h"

#include <random>
#include <vector>
#include <xcb/xtest.h>

namespace pelorin::lab {
namespace {

X11Connection opened(const std::string& display)
{
    auto connection = X11Connection::open(display);
    require(connection.has_value(), "the lab's X server takes no clients");
    return std::move(*connection);
}

} // namespace

XDrawing::XDrawing(const std::string& display) : connection(opened(display))
{
    auto* c = connection.get();
    canvas = xcb_generate_id(c);
    const std::uint32_t values[] = {0, 1}; // black, override redirect
    xcb_create_window(c, XCB_COPY_FROM_PARENT, canvas, connection.root(), 0, 0, 8192, 8192, 0,
        XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT,
        values);
    xcb_map_window(c, canvas);
    context = xcb_generate_id(c);
    xcb_create_gc(c, context, canvas, 0, nullptr);
    finish();
}

void XDrawing::fill(int x, int y, int width, int height, std::uint32_t rgb)
{
    const xcb_rectangle_t rect{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
        static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
    xcb_change_gc(connection.get(), context, XCB_GC_FOREGROUND, &rgb);
    xcb_poly_fill_rectangle(connection.get(), canvas, context, 1, &rect);
    finish();
}

void XDrawing::noise(int width, int height, std::uint32_t seed)
{
    std::minstd_rand random(seed);
    std::vector<std::uint32_t> row(static_cast<std::size_t>(width));
    for (int y = 0; y < height; ++y) {
        for (auto& pixel : row) pixel = static_cast<std::uint32_t>(random());
        xcb_put_image(connection.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, canvas, context,
            static_cast<std::uint16_t>(width), 1, 0, static_cast<std::int16_t>(y), 0,
            connection.screen().root_depth, static_cast<std::uint32_t>(row.size() * 4),
            reinterpret_cast<const std::uint8_t*>(row.data()));
    }
    finish();
}

void XDrawing::movePointer(int x, int y)
{
    xcb_test_fake_input(connection.get(), XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, connection.root(),
        static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
    finish();
}

void XDrawing::setCursorSquare(int side, std::uint32_t rgb)
{
    auto* c = connection.get();
    const auto shape = xcb_generate_id(c);
    const auto size = static_cast<std::uint16_t>(side);
    xcb_create_pixmap(c, 1, shape, connection.root(), size, size);
    const auto solid = xcb_generate_id(c);
    const std::uint32_t one = 1;
    xcb_create_gc(c, solid, shape, XCB_GC_FOREGROUND, &one);
    const xcb_rectangle_t all{0, 0, size, size};
    xcb_poly_fill_rectangle(c, shape, solid, 1, &all);
    const auto channel
        = [rgb](int shift) { return static_cast<std::uint16_t>((rgb >> shift & 0xFF) * 0x101); };
    const auto cursor = xcb_generate_id(c);
    xcb_create_cursor(c, cursor, shape, shape, channel(16), channel(8), channel(0), 0, 0, 0, 0, 0);
    xcb_change_window_attributes(c, canvas, XCB_CW_CURSOR, &cursor);
    xcb_free_cursor(c, cursor);
    xcb_free_gc(c, solid);
    xcb_free_pixmap(c, shape);
    finish();
}

void XDrawing::finish()
{
    waitForServer(connection);
}

// The server sends out what a request made it tell others before it takes the request after it.
void waitForServer(const X11Connection& connection)
{
    auto* c = connection.get();
    for (int i = 0; i < 2; ++i) free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

} // namespace pelorin::lab
