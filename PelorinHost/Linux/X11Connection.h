#pragma once

#include "PelorinCore/Result.h"
#include "PelorinHost/Platform/PlatformError.h"

#include <cstdlib>
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
    // display as in $DISPLAY; empty takes that variable.
    static Result<X11Connection, PlatformError> open(const std::string& display);

    xcb_connection_t* get() const { return connection.get(); }
    const xcb_screen_t& screen() const { return *defaultScreen; }
    xcb_window_t root() const { return defaultScreen->root; }
    int fileDescriptor() const { return xcb_get_file_descriptor(connection.get()); }
    bool isBroken() const { return xcb_connection_has_error(connection.get()) != 0; }
    void flush() const { xcb_flush(connection.get()); }

    // The extension's data, or nothing when the server has none such.
    const xcb_query_extension_reply_t* extension(xcb_extension_t* which) const;

private:
    struct Disconnect {
        void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
    };
    std::unique_ptr<xcb_connection_t, Disconnect> connection;
    const xcb_screen_t* defaultScreen = nullptr;
};

} // namespace pelorin
