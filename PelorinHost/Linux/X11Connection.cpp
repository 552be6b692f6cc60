#include "PelorinHost/Linux/X11Connection.h"

#include <future>
#include <mutex>
#include <poll.h>
#include <thread>
#include <xcb/xcbext.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto connectPatience = 3s; // a server under load answers within milliseconds

} // namespace

Result<X11Connection, PlatformError> X11Connection::open(const std::string& display)
{
    const char* const environment = std::getenv("DISPLAY");
    const std::string shown = display.empty() && environment ? environment : display;
    if (shown.empty()) return std::unexpected(PlatformError{"no X server: DISPLAY is not set"});

    // xcb waits for ever for a server that accepts and then says nothing. The thread owns what it waits for:
    // left alone, it closes the connection when there is one after all.
    struct Opened {
        Handle handle;
        int screenNumber = 0;
    };
    std::promise<Opened> promise;
    auto future = promise.get_future();
    std::thread([promise = std::move(promise), shown]() mutable {
        // Xau, which xcb asks for the cookie, works in a static buffer of its own; so does the lock have to
        // be.
        static std::mutex oneAtATime;
        const std::lock_guard guard(oneAtATime);
        Opened opened;
        opened.handle.reset(xcb_connect(shown.c_str(), &opened.screenNumber));
        promise.set_value(std::move(opened));
    }).detach();
    if (future.wait_for(connectPatience) != std::future_status::ready)
        return std::unexpected(PlatformError{"no answer from the X server at " + shown});

    auto [handle, screenNumber] = future.get();
    X11Connection made;
    made.connection = std::move(handle);
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

bool X11Connection::settle(std::chrono::milliseconds patience) const
{
    return reply<xcb_get_input_focus_reply_t>(xcb_get_input_focus(get()), patience) != nullptr;
}

void X11Connection::takeEvents(const EventHandler& onEvent) const
{
    while (const XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(get())})
        if (onEvent) onEvent(*event);
}

bool X11Connection::isWritable() const
{
    return waitFor(POLLOUT, 0ms);
}

void* X11Connection::waitForReply(
    unsigned sequence, std::chrono::milliseconds patience, const EventHandler& onEvent) const
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    // A flush waits for room for as long as it takes; so the wait for it comes first.
    const bool hasRoom = waitFor(POLLOUT, patience);
    if (hasRoom) flush();
    while (hasRoom) {
        takeEvents(onEvent); // which is also what reads replies from the socket
        void* reply = nullptr;
        xcb_generic_error_t* error = nullptr;
        if (xcb_poll_for_reply(get(), sequence, &reply, &error)) {
            std::free(error);
            return reply;
        }
        const auto left
            = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || !waitFor(POLLIN, left)) break;
    }
    xcb_discard_reply(get(), sequence);
    return nullptr;
}

bool X11Connection::waitFor(short events, std::chrono::milliseconds patience) const
{
    pollfd waiting{fileDescriptor(), events, 0};
    return ::poll(&waiting, 1, static_cast<int>(patience.count())) == 1;
}

} // namespace pelorin
