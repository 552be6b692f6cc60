#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Platform/DisplayCapture.h"

#include <mutex>
#include <optional>

namespace pelorin {

// The active monitors (RandR 1.5), the primary one first; the atom of a monitor's name is its id. A server
// without RandR has one, its screen. One round trip and one for each name; nothing when the server is gone or
// does not answer. Events met on the way go to onEvent.
std::vector<ShareableDisplay> queryMonitors(
    const X11Connection& connection, const X11Connection::EventHandler& onEvent = {});

// Asks for events whenever queryMonitors may answer otherwise than before.
void watchMonitors(const X11Connection& connection);
bool isMonitorChange(const X11Connection& connection, const xcb_generic_event_t& event);

// What queryMonitors says, without asking the server again until it told of a change. Any thread. Follows a
// server that went and came back.
class X11MonitorCache {
public:
    explicit X11MonitorCache(std::string display) : displayName(std::move(display)) {}

    std::vector<ShareableDisplay> displays(); // empty when the server is gone

private:
    void refresh();

    const std::string displayName;
    std::mutex lock; // guards what follows
    std::optional<X11Connection> connection;
    std::vector<ShareableDisplay> known;
    bool mayDiffer = false;
};

} // namespace pelorin
