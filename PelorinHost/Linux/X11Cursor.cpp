#include "PelorinHost/Linux/X11Cursor.h"

#include "PelorinHost/Screen/DamageRects.h"
#include "PelorinNet/Log.h"

#include <utility>
#include <xcb/xfixes.h>
#include <xcb/xinput.h>

namespace pelorin {
namespace {

// One colour of a premultiplied cursor pixel over one of the screen.
std::uint8_t over(std::uint32_t cursor, std::uint32_t alpha, std::uint8_t below)
{
    return static_cast<std::uint8_t>(cursor + (below * (255 - alpha) + 127) / 255);
}

} // namespace

std::optional<X11CursorImage> queryCursorImage(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent)
{
    const auto reply = connection.reply<xcb_xfixes_get_cursor_image_reply_t>(
        xcb_xfixes_get_cursor_image(connection.get()), X11Connection::patience, onEvent);
    if (!reply) return std::nullopt;
    const auto* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
    const auto count = static_cast<std::size_t>(xcb_xfixes_get_cursor_image_cursor_image_length(reply.get()));
    return X11CursorImage{reply->cursor_serial, reply->width, reply->height, reply->xhot, reply->yhot,
        {pixels, pixels + count}};
}

std::optional<RootPosition> queryPointer(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent)
{
    const auto reply = connection.reply<xcb_query_pointer_reply_t>(
        xcb_query_pointer(connection.get(), connection.root()), X11Connection::patience, onEvent);
    if (!reply) return std::nullopt;
    return RootPosition{reply->root_x, reply->root_y};
}

void watchCursorImage(const X11Connection& connection)
{
    xcb_xfixes_select_cursor_input(
        connection.get(), connection.root(), XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
}

bool isCursorImageChange(const X11Connection& connection, const xcb_generic_event_t& event)
{
    const auto* fixes = connection.extension(&xcb_xfixes_id);
    return fixes && (event.response_type & 0x7F) == fixes->first_event + XCB_XFIXES_CURSOR_NOTIFY;
}

X11DrawnCursor::X11DrawnCursor(const X11Connection& newConnection, X11Connection::EventHandler newOnEvent)
    : connection(newConnection),
      onEvent(std::move(newOnEvent))
{
    watchCursorImage(connection);
    const auto* xinput = connection.extension(&xcb_input_id);
    if (!xinput) {
        Log("capture").warning("no XInput 2: the drawn cursor moves only with other changes");
        return;
    }
    xinputOpcode = xinput->major_opcode;
    // From 2.1 on raw motion is told even while another client has grabbed the pointer.
    connection.reply<xcb_input_xi_query_version_reply_t>(
        xcb_input_xi_query_version(connection.get(), 2, 2), X11Connection::patience, onEvent);
    selectMotion(true);
}

X11DrawnCursor::~X11DrawnCursor()
{
    if (xinputOpcode >= 0) selectMotion(false);
    xcb_xfixes_select_cursor_input(connection.get(), connection.root(), 0);
    connection.flush();
}

void X11DrawnCursor::selectMotion(bool isWanted)
{
    const struct {
        xcb_input_event_mask_t head;
        std::uint32_t mask;
    } selection{{XCB_INPUT_DEVICE_ALL_MASTER, 1},
        isWanted ? static_cast<std::uint32_t>(XCB_INPUT_XI_EVENT_MASK_RAW_MOTION) : 0};
    xcb_input_xi_select_events(connection.get(), connection.root(), 1, &selection.head);
    connection.flush();
}

bool X11DrawnCursor::takes(const xcb_generic_event_t& event)
{
    if (isCursorImageChange(connection, event)) {
        hasNewShape = true;
        return true;
    }
    if ((event.response_type & 0x7F) != XCB_GE_GENERIC) return false;
    const auto& generic = reinterpret_cast<const xcb_ge_generic_event_t&>(event);
    return generic.extension == xinputOpcode && generic.event_type == XCB_INPUT_RAW_MOTION;
}

std::vector<PixelRect> X11DrawnCursor::follow()
{
    const bool isNewShape = std::exchange(hasNewShape, false);
    if (isNewShape) image = queryCursorImage(connection, onEvent);
    const auto pointer = queryPointer(connection, onEvent);
    if (!image || !pointer) return {};
    const PixelRect now{pointer->x - image->hotX, pointer->y - image->hotY, image->widthPx, image->heightPx};
    if (now == place && !isNewShape) return {};
    const auto before = std::exchange(place, now);
    return {before, now};
}

void X11DrawnCursor::drawOver(const X11ScreenGrabber::Grabbed& pixels, const PixelRect& part) const
{
    const auto common = intersection(place, part);
    if (!image || isEmpty(common)) return;
    for (int y = common.y; y < common.y + common.height; ++y)
        for (int x = common.x; x < common.x + common.width; ++x) {
            const auto cursor
                = image->argb[static_cast<std::size_t>((y - place.y) * place.width + (x - place.x))];
            const auto alpha = cursor >> 24;
            if (alpha == 0) continue;
            auto* pixel = pixels.first + std::ptrdiff_t{y - part.y} * pixels.stride + (x - part.x) * 4;
            pixel[0] = over(cursor & 0xFF, alpha, pixel[0]);
            pixel[1] = over(cursor >> 8 & 0xFF, alpha, pixel[1]);
            pixel[2] = over(cursor >> 16 & 0xFF, alpha, pixel[2]);
        }
}

} // namespace pelorin
