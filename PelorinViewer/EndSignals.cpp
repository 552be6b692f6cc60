#include "PelorinViewer/EndSignals.h"

#include "PelorinCore/Result.h"

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace pelorin {

EndSignals::EndSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    require(descriptor >= 0, "signalfd");
}

EndSignals::~EndSignals()
{
    close(descriptor);
}

} // namespace pelorin
