#include "PelorinHost/Linux/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace pelorin {

void ServiceManager::tellReady()
{
    sd_notify(0, "READY=1");
}

void ServiceManager::tellStopping()
{
    sd_notify(0, "STOPPING=1");
}

} // namespace pelorin
