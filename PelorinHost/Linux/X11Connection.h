#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/PlatformError.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <xcb/xcb.h>

namespace pelorin {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using XcbReply = std::unique_ptr<T, FreeDeleter>; // what xcb gives to be freed

// One connection to an X server, closed with it. Not shared between queues.
class X11Connection {
public:
    using EventHandler = std::function<void(const xcb_generic_event_t&)>;
    // For replies that nobody needs sooner: a server under load answers within milliseconds.
    static constexpr std::chrono::milliseconds patience{2000};

    // display as in $DISPLAY; empty takes that variable. A server that is stopped is as one that is gone.
    static Result<X11Connection, PlatformError> open(const std::string& display);

    xcb_connection_t* get() const { return connection.get(); }
    const xcb_screen_t& screen() const { return *defaultScreen; }
    xcb_window_t root() const { return defaultScreen->root; }
    int fileDescriptor() const { return xcb_get_file_descriptor(connection.get()); }
    bool isBroken() const { return xcb_connection_has_error(connection.get()) != 0; }
    void flush() const { xcb_flush(connection.get()); }

    // The extension's data, or nothing when the server has none such.
    const xcb_query_extension_reply_t* extension(xcb_extension_t* which) const;

    // The reply to a request, or nothing when the server refused, is gone or did not answer in time. Unlike
    // xcb's own waiting it returns even when the server is stopped. Events met on the way go to onEvent.
    template <class Reply, class Cookie>
    XcbReply<Reply> reply(
        Cookie cookie, std::chrono::milliseconds patience, const EventHandler& onEvent = {}) const
    {
        return XcbReply<Reply>(static_cast<Reply*>(waitForReply(cookie.sequence, patience, onEvent)));
    }
    // Whether the server has carried out, in time, everything sent so far. A server drops what it has not
    // read yet when its client closes the connection.
    bool settle(std::chrono::milliseconds patience) const;
    // Hands over what has arrived, without waiting.
    void takeEvents(const EventHandler& onEvent) const;
    // Whether the server takes more now; sending to one that is stopped blocks in the end.
    bool isWritable() const;

private:
    void* waitForReply(
        unsigned sequence, std::chrono::milliseconds patience, const EventHandler& onEvent) const;

    bool waitFor(short events, std::chrono::milliseconds patience) const; // or for the connection's end

    struct Disconnect {
        void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
    };
    using Handle = std::unique_ptr<xcb_connection_t, Disconnect>;
    Handle connection;
    const xcb_screen_t* defaultScreen = nullptr;
};

} // namespace pelorin
