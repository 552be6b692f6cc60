#pragma once

namespace pelorin::ServiceManager {

// Tells systemd, when it started us as a service that notifies, how far we are (sd_notify(3)); else nothing.
void tellReady();
void tellStopping();

} // namespace pelorin::ServiceManager
