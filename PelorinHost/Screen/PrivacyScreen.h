#pragma once

#include "PelorinHost/Platform/Displays.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

namespace pelorin {

// Blackens the panels of the machine while its desktop is used from afar. What is captured is not changed by
// it. Queue: "dev.pelorin.host.privacy". Owned by the HostServer.
class PrivacyScreen {
public:
    PrivacyScreen(Displays& displays, QueueRef queue);
    ~PrivacyScreen(); // off

    void setEnabled(bool isEnabled);

private:
    void blacken();
    void turnOff();

    Displays& displays;
    QueueRef queue;
    Log log{"privacy"};
    Subscription timer; // while it is on
};

} // namespace pelorin
