#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/Displays.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <functional>
#include <optional>

namespace pelorin {

// The size of a display made for a phone: its viewport at `density` pixels a point, or at its own scale for a
// density of 0; even, within 320x200 and 8192x8192.
PointSize pointSizeFor(const Viewport& viewport, float density);

// Makes the one virtual display, in the shape of a phone, lets the physical displays mirror it, and undoes
// all of it when the session it was made for ends. Queue: "dev.pelorin.host.display", where the callbacks
// come, too. Owns the display. One for the whole program, shared by its sessions.
class VirtualDisplayManager {
public:
    using Owner = Bytes; // a session's own token
    // The display's id; nothing when none could be made, or a later call has taken this one's place.
    using Done = std::function<void(std::optional<std::uint32_t> displayID)>;

    VirtualDisplayManager(Displays& displays, QueueRef queue);
    ~VirtualDisplayManager(); // removes the display

    // Makes the display or adapts the one there is, which has another owner from here on.
    void ensureDisplay(PointSize size, Owner owner, Done done);
    void release(const Owner& owner); // without effect for anybody but the owner

private:
    void create(int attempt);
    void shape();
    void mirror(int attempt);
    int tryToMirror();
    void finish(std::optional<std::uint32_t> displayID);
    void remove();
    bool isOnline() const;

    Displays& displays;
    QueueRef queue;
    Log log{"display"};
    std::unique_ptr<VirtualDisplay> display;
    std::optional<Owner> owner;
    std::optional<PointSize> pointSize; // that the display was made for
    bool mirrored = false; // by the physical displays
    PointSize wanted;
    Done done; // while ensureDisplay is at work
    Subscription retry;
};

} // namespace pelorin
