#pragma once

#include "PelorinHost/Platform/Pasteboard.h"
#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Keeps the desktop's clipboard and the phone's in step, for plain text: what is copied here is handed on,
// unless its application marks it as private; what the phone sends is put here and not handed back. Queue:
// the session's. Owned by the PhoneInput.
class ClipboardBridge {
public:
    static constexpr Duration period = std::chrono::milliseconds(500); // of looking for changes
    static constexpr std::size_t mostBytes = 262'144; // of a text that is handed on, in UTF-8

    ClipboardBridge(Pasteboard& pasteboard, QueueRef queue);

    // Hands on what is copied from now on; what is there already stays here.
    void start(std::function<void(std::string)> onText);
    void stop();
    bool isStarted() const { return bool(handler); }

    // Text from the phone. False when the clipboard can't be set.
    bool write(const std::string& text);

private:
    void poll();
    void found(const std::string& text);

    Pasteboard& pasteboard;
    QueueRef queue;
    std::function<void(std::string)> handler;
    int lastChangeCount = 0; // last seen, or made by us
    std::optional<std::string> written; // by us, until something else is copied
    Subscription timer;
};

} // namespace pelorin
