#pragma once

#include "PelorinHost/Platform/Power.h"
#include "PelorinNet/Log.h"

namespace pelorin {

// Keeps an X server's screen awake: by the screen saver's own suspension, which the server lifts when our
// connection goes, so a crash leaves nothing behind, and by waking a display that sleeps already. Any queue.
class X11Power {
public:
    explicit X11Power(std::string newDisplay) : display(std::move(newDisplay)) {}

    void declareUserActivity(const std::string& name);
    std::unique_ptr<PowerAssertion> preventDisplaySleep(const std::string& name);

private:
    const std::string display;
    const Log log{"power"};
};

} // namespace pelorin
