#include "Tests/Lab/InputWindow.h"

#include <fmt/format.h>
#include <poll.h>
#include <utility>

namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 20s; // a loaded machine under a sanitizer

X11Connection connected(const std::string& display)
{
    auto opened = X11Connection::open(display);
    require(opened.has_value(), "the lab's window can't reach its X server");
    return std::move(*opened);
}

} // namespace

InputWindow::InputWindow(const std::string& display) : connection(connected(display))
{
    auto* c = connection.get();
    const auto& screen = connection.screen();
    const auto window = xcb_generate_id(c);
    const std::uint32_t values[] = {1,
        XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE | XCB_EVENT_MASK_BUTTON_PRESS
            | XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_POINTER_MOTION
            | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen.root, 0, 0, screen.width_in_pixels,
        screen.height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen.root_visual,
        XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(c, window);
    eventsUntil("mapped");
    xcb_set_input_focus(c, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
    require(connection.settle(patience), "the lab's window got no focus");
    events.clear();
}

std::vector<std::string> InputWindow::eventsUntil(const std::string& lastEvent)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    connection.flush();
    for (;;) {
        connection.takeEvents([this](const auto& event) { take(event); });
        for (auto event = events.begin(); event != events.end(); ++event) {
            if (*event != lastEvent) continue;
            std::vector<std::string> result(events.begin(), event + 1);
            events.erase(events.begin(), event + 1);
            return result;
        }
        const auto left
            = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{connection.fileDescriptor(), POLLIN, 0};
        if (left <= 0ms || connection.isBroken()
            || ::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
            events.push_back("timeout");
            return std::exchange(events, {});
        }
    }
}

std::vector<std::string> InputWindow::eventsNow()
{
    connection.reply<xcb_get_input_focus_reply_t>(
        xcb_get_input_focus(connection.get()), patience, [this](const auto& event) { take(event); });
    return std::exchange(events, {});
}

void InputWindow::take(const xcb_generic_event_t& event)
{
    const auto type = event.response_type & 0x7F;
    const auto& input = reinterpret_cast<const xcb_button_press_event_t&>(event); // one layout for them all
    switch (type) {
    case XCB_KEY_PRESS:
        if (std::exchange(keyDown, input.detail) != input.detail)
            events.push_back(fmt::format("key {} down", input.detail));
        return;
    case XCB_KEY_RELEASE:
        keyDown = 0;
        events.push_back(fmt::format("key {} up", input.detail));
        return;
    case XCB_BUTTON_PRESS:
    case XCB_BUTTON_RELEASE:
        events.push_back(fmt::format("button {} {} at {},{}", input.detail,
            type == XCB_BUTTON_PRESS ? "down" : "up", input.root_x, input.root_y));
        return;
    case XCB_MOTION_NOTIFY:
        if (pointer == std::pair(input.root_x, input.root_y)) return;
        pointer = {input.root_x, input.root_y};
        events.push_back(fmt::format("motion {},{}", input.root_x, input.root_y));
        return;
    case XCB_MAP_NOTIFY:
        events.push_back("mapped");
        return;
    default:
        return;
    }
}

bool InputWindow::isKeyDown(std::uint8_t keycode) const
{
    const auto reply
        = connection.reply<xcb_query_keymap_reply_t>(xcb_query_keymap(connection.get()), patience);
    return reply && (reply->keys[keycode / 8] & (1 << (keycode % 8)));
}

std::uint16_t InputWindow::pointerMask() const
{
    const auto reply = connection.reply<xcb_query_pointer_reply_t>(
        xcb_query_pointer(connection.get(), connection.root()), patience);
    return reply ? reply->mask : 0xFFFF;
}

} // namespace pelorin::lab
