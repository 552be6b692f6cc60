#include "PelorinHost/Linux/X11Monitors.h"

#include <algorithm>
#include <xcb/randr.h>

namespace pelorin {
namespace {

constexpr std::uint32_t wholeScreenID = 1; // where there are no monitors to name

ShareableDisplay displayAt(
    std::uint32_t id, std::string name, int x, int y, int width, int height, bool isMain)
{
    return {id, std::move(name), width, height,
        {static_cast<double>(x), static_cast<double>(y), static_cast<double>(width),
            static_cast<double>(height)},
        isMain};
}

std::vector<ShareableDisplay> wholeScreen(const X11Connection& connection)
{
    auto* c = connection.get();
    const XcbReply<xcb_get_geometry_reply_t> root(
        xcb_get_geometry_reply(c, xcb_get_geometry(c, connection.root()), nullptr));
    if (!root) return {};
    return {displayAt(wholeScreenID, "screen", 0, 0, root->width, root->height, true)};
}

std::string atomName(const X11Connection& connection, xcb_atom_t atom)
{
    auto* c = connection.get();
    const XcbReply<xcb_get_atom_name_reply_t> reply(
        xcb_get_atom_name_reply(c, xcb_get_atom_name(c, atom), nullptr));
    if (!reply) return {};
    return {xcb_get_atom_name_name(reply.get()),
        static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get()))};
}

} // namespace

std::vector<ShareableDisplay> queryMonitors(const X11Connection& connection)
{
    auto* c = connection.get();
    if (!connection.extension(&xcb_randr_id)) return wholeScreen(connection);
    const auto version = xcb_randr_query_version(c, 1, 5);
    const auto asked = xcb_randr_get_monitors(c, connection.root(), 1);
    const XcbReply<xcb_randr_query_version_reply_t> known(xcb_randr_query_version_reply(c, version, nullptr));
    const XcbReply<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(c, asked, nullptr));
    if (!reply) return connection.isBroken() ? std::vector<ShareableDisplay>{} : wholeScreen(connection);

    std::vector<ShareableDisplay> displays;
    for (auto monitors = xcb_randr_get_monitors_monitors_iterator(reply.get()); monitors.rem > 0;
        xcb_randr_monitor_info_next(&monitors)) {
        const auto& m = *monitors.data;
        if (m.width == 0 || m.height == 0 || m.name == XCB_ATOM_NONE) continue;
        displays.push_back(
            displayAt(m.name, atomName(connection, m.name), m.x, m.y, m.width, m.height, m.primary != 0));
    }
    std::ranges::stable_partition(displays, &ShareableDisplay::isMain);
    for (auto& display : displays) display.isMain = &display == &displays.front();
    return displays;
}

void watchMonitors(const X11Connection& connection)
{
    if (!connection.extension(&xcb_randr_id)) return;
    xcb_randr_select_input(connection.get(), connection.root(),
        XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE
            | XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE | XCB_RANDR_NOTIFY_MASK_RESOURCE_CHANGE);
    connection.flush();
}

bool isMonitorChange(const X11Connection& connection, const xcb_generic_event_t& event)
{
    const auto* randr = connection.extension(&xcb_randr_id);
    if (!randr) return false;
    const int type = (event.response_type & 0x7F) - randr->first_event;
    return type == XCB_RANDR_SCREEN_CHANGE_NOTIFY || type == XCB_RANDR_NOTIFY;
}

std::vector<ShareableDisplay> X11MonitorCache::displays()
{
    const std::lock_guard guard(lock);
    if (connection && !hasChanged()) return known;
    if (!connection || connection->isBroken()) {
        connection.reset();
        known.clear();
        auto opened = X11Connection::open(displayName);
        if (!opened) return {};
        connection = std::move(*opened);
        watchMonitors(*connection); // before the question, so that no change falls between
    }
    known = queryMonitors(*connection);
    return known;
}

bool X11MonitorCache::hasChanged()
{
    bool isChanged = false;
    while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(connection->get())})
        isChanged |= isMonitorChange(*connection, *event);
    return isChanged || connection->isBroken();
}

} // namespace pelorin
