#include "PelorinViewer/X11ClipboardWatch.h"

#include <SDL.h>
#include <SDL_syswm.h>
#include <X11/extensions/Xfixes.h>

namespace pelorin {

X11ClipboardWatch::~X11ClipboardWatch()
{
    if (changeEvent >= 0) SDL_SetEventFilter(nullptr, nullptr);
}

void X11ClipboardWatch::begin(SDL_Window& window)
{
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    if (!SDL_GetWindowWMInfo(&window, &info) || info.subsystem != SDL_SYSWM_X11) return;
    Display* const display = info.info.x11.display;
    int firstEvent = 0;
    int firstError = 0;
    if (!XFixesQueryExtension(display, &firstEvent, &firstError)) return;
    changeEvent = firstEvent + XFixesSelectionNotify;
    SDL_SetEventFilter(&X11ClipboardWatch::keep, this);
    SDL_EventState(SDL_SYSWMEVENT, SDL_ENABLE);
    XFixesSelectSelectionInput(display, info.info.x11.window, XInternAtom(display, "CLIPBOARD", False),
        XFixesSetSelectionOwnerNotifyMask);
    XFlush(display);
}

int X11ClipboardWatch::keep(void* watch, SDL_Event* event)
{
    if (event->type != SDL_SYSWMEVENT) return 1;
    return event->syswm.msg->msg.x11.event.type == static_cast<X11ClipboardWatch*>(watch)->changeEvent;
}

} // namespace pelorin
