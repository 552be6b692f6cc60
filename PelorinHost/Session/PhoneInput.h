#pragma once

#include "PelorinHost/Input/ClipboardBridge.h"
#include "PelorinHost/Input/InputInjector.h"
#include "PelorinHost/Platform/HostPlatform.h"
#include "PelorinNet/Log.h"

namespace pelorin {

// The phone's input on its way to the desktop: events through the injector, pasted text through the
// clipboard. Lets go of everything at its end. Queue: the session's. Owned by the HostSession.
class PhoneInput {
public:
    PhoneInput(HostPlatform& platform, QueueRef queue);

    void handle(const message::MouseMove& move);
    void handle(const message::MouseButtonChange& change);
    void handle(const message::Scroll& scroll);
    void handle(const message::Key& key);
    void handle(const message::Text& text);
    void paste(const message::PasteText& paste);

    InputInjector& injector() { return inputInjector; }
    ClipboardBridge& clipboard() { return clipboardBridge; }

private:
    void pressPaste();

    QueueRef queue;
    std::unique_ptr<EventPosting> posting;
    std::unique_ptr<Pasteboard> pasteboard;
    ClipboardBridge clipboardBridge;
    Log log{"session"};
    InputInjector inputInjector;
    Subscription pendingPaste;
};

} // namespace pelorin
