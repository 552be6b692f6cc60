#include "PelorinHost/Linux/X11DrawnMonitor.h"

#include <cstring>
#include <string_view>
#include <sys/uio.h>
#include <xcb/randr.h>
#include <xcb/xcbext.h>

namespace pelorin {
namespace {

constexpr auto patience = X11Connection::patience;
constexpr std::string_view monitorName = "Pelorin";

// xcb's own form of this request can't carry outputs.
void sendSetMonitor(const X11Connection& connection, const xcb_randr_monitor_info_t& info,
    const std::vector<std::uint32_t>& outputs)
{
    xcb_randr_set_monitor_request_t head{};
    head.window = connection.root();
    std::vector<std::uint32_t> request((sizeof head + sizeof info) / sizeof(std::uint32_t));
    std::memcpy(request.data(), &head, sizeof head);
    std::memcpy(request.data() + sizeof head / sizeof(std::uint32_t), &info, sizeof info);
    request.insert(request.end(), outputs.begin(), outputs.end());
    // xcb fills in the head; it asks for two free places before the first part.
    iovec parts[3] = {{}, {}, {request.data(), request.size() * sizeof(std::uint32_t)}};
    const xcb_protocol_request_t protocol{1, &xcb_randr_id, XCB_RANDR_SET_MONITOR, 1};
    xcb_send_request(connection.get(), 0, parts + 2, &protocol);
}

} // namespace

bool drawMonitor(const X11Connection& connection, PointSize size, const std::vector<std::uint32_t>& outputs)
{
    xcb_randr_monitor_info_t info{};
    info.name = drawnMonitorID(connection);
    info.primary = 1;
    info.nOutput = static_cast<std::uint16_t>(outputs.size());
    info.width = static_cast<std::uint16_t>(size.width);
    info.height = static_cast<std::uint16_t>(size.height);
    info.width_in_millimeters = static_cast<std::uint32_t>(size.width * 254 / 960);
    info.height_in_millimeters = static_cast<std::uint32_t>(size.height * 254 / 960);
    // A name that is taken is refused, whatever the protocol's text says.
    eraseMonitor(connection);
    sendSetMonitor(connection, info, outputs);
    const auto reply = connection.reply<xcb_randr_get_monitors_reply_t>(
        xcb_randr_get_monitors(connection.get(), connection.root(), 1), patience);
    if (!reply) return false;
    for (auto monitors = xcb_randr_get_monitors_monitors_iterator(reply.get()); monitors.rem > 0;
        xcb_randr_monitor_info_next(&monitors)) {
        const auto& m = *monitors.data;
        if (m.name == info.name && m.width == size.width && m.height == size.height) return true;
    }
    return false;
}

void eraseMonitor(const X11Connection& connection)
{
    xcb_randr_delete_monitor(connection.get(), connection.root(), drawnMonitorID(connection));
}

std::uint32_t drawnMonitorID(const X11Connection& connection)
{
    const auto reply = connection.reply<xcb_intern_atom_reply_t>(
        xcb_intern_atom(
            connection.get(), 0, static_cast<std::uint16_t>(monitorName.size()), monitorName.data()),
        patience);
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

} // namespace pelorin
