#include "PelorinHost/Linux/X11Power.h"

#include "PelorinHost/Linux/X11Connection.h"

#include <xcb/dpms.h>
#include <xcb/screensaver.h>

namespace pelorin {
namespace {

class X11ScreenSaverSuspension final : public PowerAssertion {
public:
    explicit X11ScreenSaverSuspension(X11Connection newConnection) : connection(std::move(newConnection))
    {
        xcb_screensaver_suspend(connection.get(), 1);
        connection.flush();
    }

private:
    const X11Connection connection;
};

} // namespace

void X11Power::declareUserActivity(const std::string& name)
{
    const auto connection = X11Connection::open(display);
    if (!connection) return log.warning("{}: {}", name, connection.error().description);
    auto* c = connection->get();
    xcb_force_screen_saver(c, XCB_SCREEN_SAVER_RESET);
    if (connection->extension(&xcb_dpms_id)) xcb_dpms_force_level(c, XCB_DPMS_DPMS_MODE_ON);
    // Answered only after the requests before it, so these are done when the connection closes.
    const XcbReply<xcb_get_input_focus_reply_t> done(
        xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

std::unique_ptr<PowerAssertion> X11Power::preventDisplaySleep(const std::string& name)
{
    auto connection = X11Connection::open(display);
    if (connection && connection->extension(&xcb_screensaver_id))
        return std::make_unique<X11ScreenSaverSuspension>(std::move(*connection));
    log.warning("{}: the display may fall asleep: {}", name,
        connection ? "the X server has no MIT-SCREEN-SAVER" : connection.error().description);
    return nullptr;
}

} // namespace pelorin
