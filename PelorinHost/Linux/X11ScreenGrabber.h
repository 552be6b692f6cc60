#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Platform/Geometry.h"
#include "PelorinHost/Screen/PixelConversion.h"

#include <optional>
#include <span>
#include <utility>
#include <vector>
#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>

namespace pelorin {

// Memory shared with an X server through a descriptor, which leaves nothing behind when we or it crash.
class X11SharedMemory {
public:
    static Result<X11SharedMemory, PlatformError> create(
        const X11Connection& connection, std::size_t bytes, const X11Connection::EventHandler& onEvent);
    X11SharedMemory() = default;
    X11SharedMemory(X11SharedMemory&& other) noexcept;
    X11SharedMemory& operator=(X11SharedMemory&& other) noexcept;
    ~X11SharedMemory();

    xcb_shm_seg_t id() const { return segment; }
    std::uint8_t* data() const { return memory; }
    std::size_t size() const { return byteCount; }

private:
    xcb_connection_t* connection = nullptr;
    xcb_shm_seg_t segment = 0;
    std::uint8_t* memory = nullptr;
    std::size_t byteCount = 0;
};

// Tells what changed on the whole screen of an X server and brings pixels of it. All rectangles are in
// pixels of the root window. Lives on the capture queue, owned by a capture stream.
class X11ScreenGrabber {
public:
    // connection outlives the grabber; events met while it waits for the server go to onEvent. Fails on a
    // server without MIT-SHM, DAMAGE or XFIXES, or whose pixels are not 32-bit BGRX.
    static Result<X11ScreenGrabber, PlatformError> open(
        const X11Connection& connection, X11Connection::EventHandler onEvent);

    // Whether the event says that something changed. It comes once; the next one only after takeDamage.
    bool isDamage(const xcb_generic_event_t& event) const;
    // What changed since the last call, or nothing when the server is gone or does not answer.
    std::optional<std::vector<PixelRect>> takeDamage();

    // Pixels of each rectangle, ours to write to, until the next call. A rectangle that reaches out of the
    // screen is an error.
    struct Grabbed {
        std::uint8_t* first = nullptr;
        int stride = 0;
    };
    Result<std::vector<Grabbed>, PlatformError> grab(std::span<const PixelRect> rects);

private:
    X11ScreenGrabber(const X11Connection& newConnection, X11Connection::EventHandler newOnEvent)
        : connection(&newConnection),
          onEvent(std::move(newOnEvent))
    {
    }

    const X11Connection* connection; // not owned
    X11Connection::EventHandler onEvent;
    xcb_damage_damage_t damage = 0;
    xcb_xfixes_region_t changed = 0;
    X11SharedMemory memory;
};

} // namespace pelorin
