#include "PelorinHost/Linux/LinuxPower.h"

#include <utility>

namespace pelorin {
namespace {

using Bus = DBusConnection::Bus;

constexpr const char* ourName = "Pelorin Host";

// The connection that holds the inhibition. Who is not there, as outside of a desktop, has nothing that could
// put it to sleep.
std::unique_ptr<DBusConnection> hold(
    const DBusMethod& inhibit, Bus bus, const std::string& address, const QueueRef& queue)
{
    const auto refused = [name = inhibit.destination, log = Log("power")](const std::string& reason) {
        log.info("{} does not keep the desktop awake: {}", name, reason);
    };
    auto connection = DBusConnection::open(bus, address, queue);
    if (!connection) {
        refused(connection.error().description);
        return nullptr;
    }
    (*connection)->hold(inhibit, refused);
    return std::move(*connection);
}

struct KeptAwake final : PowerAssertion {
    std::unique_ptr<PowerAssertion> screen;
    std::unique_ptr<DBusConnection> login;
    std::unique_ptr<DBusConnection> saver;
};

} // namespace

LinuxPower::LinuxPower(std::string display, DBusAddresses newBuses)
    : screen(std::move(display)),
      buses(std::move(newBuses))
{
}

void LinuxPower::declareUserActivity(const std::string& name)
{
    screen.declareUserActivity(name);
}

std::unique_ptr<PowerAssertion> LinuxPower::preventDisplaySleep(const std::string& name, QueueRef queue)
{
    const DBusMethod atLogin{"org.freedesktop.login1", "/org/freedesktop/login1",
        "org.freedesktop.login1.Manager", "Inhibit", {"idle", ourName, name.c_str(), "block"}};
    const DBusMethod atSaver{"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
        "org.freedesktop.ScreenSaver", "Inhibit", {ourName, name.c_str()}};
    auto awake = std::make_unique<KeptAwake>();
    awake->screen = screen.preventDisplaySleep(name);
    awake->login = hold(atLogin, Bus::system, buses.system, queue);
    awake->saver = hold(atSaver, Bus::session, buses.session, queue);
    return awake;
}

} // namespace pelorin
