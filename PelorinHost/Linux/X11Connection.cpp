#include "PelorinHost/Linux/X11Connection.h"

namespace pelorin {

Result<X11Connection, PlatformError> X11Connection::open(const std::string& display)
{
    const std::string shown
        = display.empty() ? (std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "") : display;
    if (shown.empty()) return std::unexpected(PlatformError{"no X server: DISPLAY is not set"});

    X11Connection made;
    int screenNumber = 0;
    made.connection.reset(xcb_connect(shown.c_str(), &screenNumber));
    if (made.isBroken()) return std::unexpected(PlatformError{"no X server at " + shown});

    auto screens = xcb_setup_roots_iterator(xcb_get_setup(made.get()));
    for (; screens.rem > 0 && screenNumber > 0; --screenNumber) xcb_screen_next(&screens);
    if (screens.rem == 0) return std::unexpected(PlatformError{"no such screen on " + shown});
    made.defaultScreen = screens.data;
    return made;
}

const xcb_query_extension_reply_t* X11Connection::extension(xcb_extension_t* which) const
{
    const auto* reply = xcb_get_extension_data(get(), which);
    return reply && reply->present ? reply : nullptr;
}

} // namespace pelorin
