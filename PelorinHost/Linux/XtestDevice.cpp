#include "PelorinHost/Linux/XtestDevice.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <xcb/xtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// The session's queue is what waits: longer than any healthy server takes, too short for a phone to notice.
constexpr auto patience = 200ms;

std::int16_t coordinate(double value)
{
    using Limits = std::numeric_limits<std::int16_t>;
    return static_cast<std::int16_t>(std::lround(std::clamp<double>(value, Limits::min(), Limits::max())));
}

} // namespace

Result<std::unique_ptr<XtestDevice>, PlatformError> XtestDevice::open(const std::string& display)
{
    auto connection = X11Connection::open(display);
    if (!connection) return std::unexpected(connection.error());
    if (!connection->extension(&xcb_test_id)) return std::unexpected(PlatformError{"no XTEST"});
    // A client that grabs the server, as screen lockers and menus do, must not silence the phone.
    xcb_test_grab_control(connection->get(), 1);
    return std::unique_ptr<XtestDevice>(new XtestDevice(std::move(*connection)));
}

XtestDevice::~XtestDevice()
{
    if (isBroken()) return;
    for (int keycode = 0; keycode < 256; ++keycode)
        if (holds[keycode] > 0) fakeKey(static_cast<Keycode>(keycode), false);
    for (int button = 0; button < 256; ++button)
        if (buttonsDown[button]) fake(XCB_BUTTON_RELEASE, static_cast<std::uint8_t>(button));
    settle();
}

void XtestDevice::movePointer(Point target)
{
    fake(XCB_MOTION_NOTIFY, 0, coordinate(target.x), coordinate(target.y));
}

void XtestDevice::setButton(std::uint8_t xButton, bool isDown)
{
    buttonsDown[xButton] = isDown;
    fake(isDown ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, xButton);
}

void XtestDevice::hold(Keycode keycode)
{
    if (++holds[keycode] == 1) fakeKey(keycode, true);
}

void XtestDevice::letGo(Keycode keycode)
{
    if (holds[keycode] == 0) return;
    if (--holds[keycode] == 0) fakeKey(keycode, false);
}

void XtestDevice::tapKey(Keycode keycode)
{
    fakeKey(keycode, true);
    fakeKey(keycode, false);
}

void XtestDevice::fakeKey(Keycode keycode, bool isDown)
{
    fake(isDown ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode);
}

// The server takes a release only from the device that pressed: what a person holds down stays.
void XtestDevice::releaseAll()
{
    constexpr int buttons = 5; // those that the mask has room for
    const auto keys = connection.reply<xcb_query_keymap_reply_t>(
        xcb_query_keymap(connection.get()), X11Connection::patience);
    const auto pointer = connection.reply<xcb_query_pointer_reply_t>(
        xcb_query_pointer(connection.get(), connection.root()), X11Connection::patience);
    if (!keys || !pointer) return;
    for (int keycode = 0; keycode < 256; ++keycode)
        if ((keys->keys[keycode / 8] >> keycode % 8 & 1) != 0)
            fake(XCB_KEY_RELEASE, static_cast<std::uint8_t>(keycode));
    for (int button = 1; button <= buttons; ++button)
        if ((pointer->mask & XCB_BUTTON_MASK_1 << (button - 1)) != 0)
            fake(XCB_BUTTON_RELEASE, static_cast<std::uint8_t>(button));
}

std::optional<XtestDevice::PointerState> XtestDevice::pointerState()
{
    const auto reply
        = connection.reply<xcb_query_pointer_reply_t>(xcb_query_pointer(connection.get(), connection.root()),
            patience, [this](const auto& event) { handleEvent(event); });
    if (!reply) return std::nullopt;
    return PointerState{{double(reply->root_x), double(reply->root_y)}, reply->mask};
}

std::optional<XtestDevice::KeyboardMapping> XtestDevice::keyboardMapping()
{
    const auto* setup = xcb_get_setup(connection.get());
    const int count = setup->max_keycode - setup->min_keycode + 1;
    const auto reply = connection.reply<xcb_get_keyboard_mapping_reply_t>(
        xcb_get_keyboard_mapping(connection.get(), setup->min_keycode, static_cast<std::uint8_t>(count)),
        patience, [this](const auto& event) { handleEvent(event); });
    if (!reply) return std::nullopt;
    const auto* keysyms = xcb_get_keyboard_mapping_keysyms(reply.get());
    return KeyboardMapping{setup->min_keycode, reply->keysyms_per_keycode,
        {keysyms, keysyms + xcb_get_keyboard_mapping_keysyms_length(reply.get())}};
}

void XtestDevice::setKeysyms(Keycode keycode, std::span<const Keysym> keysyms)
{
    remappedByUs.set(keycode);
    xcb_change_keyboard_mapping(
        connection.get(), 1, keycode, static_cast<std::uint8_t>(keysyms.size()), keysyms.data());
}

bool XtestDevice::takeMappingChange()
{
    takeEvents();
    return std::exchange(isMappingChanged, false);
}

bool XtestDevice::settle() const
{
    return connection.settle(patience);
}

void XtestDevice::takeEvents()
{
    connection.takeEvents([this](const auto& event) { handleEvent(event); });
}

void XtestDevice::fake(std::uint8_t type, std::uint8_t detail, std::int16_t x, std::int16_t y)
{
    xcb_test_fake_input(connection.get(), type, detail, XCB_CURRENT_TIME, connection.root(), x, y, 0);
}

void XtestDevice::handleEvent(const xcb_generic_event_t& event)
{
    if ((event.response_type & 0x7F) != XCB_MAPPING_NOTIFY) return;
    const auto& change = reinterpret_cast<const xcb_mapping_notify_event_t&>(event);
    if (change.request != XCB_MAPPING_KEYBOARD) return;
    // The server announces our own changes to us as well, one keycode each.
    if (change.count == 1 && remappedByUs[change.first_keycode]) return;
    isMappingChanged = true;
}

} // namespace pelorin
