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

std::vector<ShareableDisplay> wholeScreen(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent)
{
    const auto root = connection.reply<xcb_get_geometry_reply_t>(
        xcb_get_geometry(connection.get(), connection.root()), X11Connection::patience, onEvent);
    if (!root) return {};
    return {displayAt(wholeScreenID, "screen", 0, 0, root->width, root->height, true)};
}

std::string atomName(
    const X11Connection& connection, xcb_atom_t atom, const X11Connection::EventHandler& onEvent)
{
    const auto reply = connection.reply<xcb_get_atom_name_reply_t>(
        xcb_get_atom_name(connection.get(), atom), X11Connection::patience, onEvent);
    if (!reply) return {};
    return {xcb_get_atom_name_name(reply.get()),
        static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get()))};
}

} // namespace

std::vector<ShareableDisplay> queryMonitors(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent)
{
    auto* c = connection.get();
    if (!connection.extension(&xcb_randr_id)) return wholeScreen(connection, onEvent);
    const auto known = connection.reply<xcb_randr_query_version_reply_t>(
        xcb_randr_query_version(c, 1, 5), X11Connection::patience, onEvent);
    if (!known) return {};
    if (known->major_version == 1 && known->minor_version < 5) return wholeScreen(connection, onEvent);
    const auto reply = connection.reply<xcb_randr_get_monitors_reply_t>(
        xcb_randr_get_monitors(c, connection.root(), 1), X11Connection::patience, onEvent);
    if (!reply) return {};

    std::vector<ShareableDisplay> displays;
    for (auto monitors = xcb_randr_get_monitors_monitors_iterator(reply.get()); monitors.rem > 0;
        xcb_randr_monitor_info_next(&monitors)) {
        const auto& m = *monitors.data;
        if (m.width == 0 || m.height == 0 || m.name == XCB_ATOM_NONE) continue;
        displays.push_back(displayAt(
            m.name, atomName(connection, m.name, onEvent), m.x, m.y, m.width, m.height, m.primary != 0));
    }
    std::ranges::stable_partition(displays, &ShareableDisplay::isMain);
    for (auto& display : displays) display.isMain = &display == &displays.front();
    return displays;
}

void watchMonitors(const X11Connection& connection)
{
    if (!connection.extension(&xcb_randr_id)) return;
    // Of monitors that a client draws, which no output shows by itself, the root's configuration tells.
    const std::uint32_t rootEvents = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection.get(), connection.root(), XCB_CW_EVENT_MASK, &rootEvents);
    xcb_randr_select_input(connection.get(), connection.root(),
        XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE
            | XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE | XCB_RANDR_NOTIFY_MASK_RESOURCE_CHANGE);
    connection.flush();
}

bool isMonitorChange(const X11Connection& connection, const xcb_generic_event_t& event)
{
    const auto* randr = connection.extension(&xcb_randr_id);
    if (!randr) return false;
    const int type = event.response_type & 0x7F;
    if (type == XCB_CONFIGURE_NOTIFY) return true; // of the root, the only window watched so
    return type == randr->first_event + XCB_RANDR_SCREEN_CHANGE_NOTIFY
        || type == randr->first_event + XCB_RANDR_NOTIFY;
}

std::vector<ShareableDisplay> X11MonitorCache::displays()
{
    const std::lock_guard guard(lock);
    if (connection)
        connection->takeEvents(
            [this](const auto& event) { mayDiffer |= isMonitorChange(*connection, event); });
    if (!connection || connection->isBroken()) {
        connection.reset();
        known.clear();
        auto opened = X11Connection::open(displayName);
        if (!opened) return {};
        connection = std::move(*opened);
        watchMonitors(*connection); // before the question, so that no change falls between
        mayDiffer = true;
    }
    if (mayDiffer) refresh();
    return known;
}

void X11MonitorCache::refresh()
{
    mayDiffer = false;
    known = queryMonitors(
        *connection, [this](const auto& event) { mayDiffer |= isMonitorChange(*connection, event); });
    if (known.empty()) mayDiffer = true; // perhaps it only did not answer in time
}

} // namespace pelorin
