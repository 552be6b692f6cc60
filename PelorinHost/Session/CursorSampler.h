#pragma once

#include "PelorinHost/Input/InputInjector.h"
#include "PelorinHost/Platform/CursorSource.h"

namespace pelorin {

// Watches where the cursor is and what it looks like, for a phone that draws it itself: every 8 ms while it
// moves, every 100 ms otherwise. Queue: the session's, where the callbacks arrive too; the sampling itself
// has a queue of its own, so that a slow display server never delays a message. Owned by the HostSession, and
// goes before the injector it asks.
class CursorSampler {
public:
    CursorSampler(const QueueRef& queue, QueueRef cursorQueue,
        std::function<std::unique_ptr<CursorSource>()> makeSource, const InputInjector& injector);
    ~CursorSampler();

    std::function<void(message::CursorPosition)> onPosition; // when it changed
    std::function<void(message::CursorImage)> onImage; // when the shape changed

    // Positions are relative to this display from here on.
    void follow(Rect displayBounds, double pointsPerPixel);
    void pointerMoved(); // by the phone: look closely

private:
    struct Run;
    std::shared_ptr<Run> run;
    Lifetime lifetime;
};

} // namespace pelorin
