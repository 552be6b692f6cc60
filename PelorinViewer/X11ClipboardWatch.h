#pragma once

union SDL_Event;
struct SDL_Window;

namespace pelorin {

// SDL tells of the clipboard only when somebody takes it from us, and so of one copy at most. Once begun, an
// SDL_SYSWMEVENT in the queue says that another program has copied something; no other of those gets there.
// On what is not X11 it does nothing. Called on the window's thread, one at a time in a process; lives as
// long as the window.
class X11ClipboardWatch {
public:
    X11ClipboardWatch() = default;
    ~X11ClipboardWatch();
    X11ClipboardWatch(const X11ClipboardWatch&) = delete;
    X11ClipboardWatch& operator=(const X11ClipboardWatch&) = delete;

    void begin(SDL_Window& window);

private:
    static int keep(void* watch, SDL_Event* event); // SDL's filter

    int changeEvent = -1; // X11's number for it
};

} // namespace pelorin
