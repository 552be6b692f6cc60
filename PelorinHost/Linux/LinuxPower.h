#pragma once

#include "PelorinHost/Linux/DBusConnection.h"
#include "PelorinHost/Linux/X11Power.h"
#include "PelorinHost/Platform/Power.h"

namespace pelorin {

// Keeps a Linux desktop awake at every place where something may put it to sleep: at the X server, at the
// login manager, whose idle action suspends the machine, and at the desktop's own screen saver. Each forgets
// us when our connection to it goes.
class LinuxPower final : public Power {
public:
    explicit LinuxPower(std::string display, DBusAddresses buses = {});

    void declareUserActivity(const std::string& name) override;
    std::unique_ptr<PowerAssertion> preventDisplaySleep(const std::string& name, QueueRef queue) override;

private:
    X11Power screen;
    const DBusAddresses buses;
};

} // namespace pelorin
