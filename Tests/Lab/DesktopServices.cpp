#include "Tests/Lab/DesktopServices.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

#include <algorithm>

namespace pelorin::lab {
namespace {

constexpr const char* loginTo = "--dest=org.freedesktop.login1";
constexpr const char* manager = "/org/freedesktop/login1";
constexpr const char* session = "/org/freedesktop/login1/session/auto";
constexpr const char* interface = "string:org.freedesktop.login1.Session";

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

DesktopServices::DesktopServices()
    : login(Process::start({"/usr/bin/python3", "-m", "dbusmock", "--template", "logind"}, environment())),
      saver(bus, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver")
{
    saver.addMethod("Inhibit", "u", "ret = 7", "ss");
    const std::vector<std::string> setUp[] = {
        {loginTo, manager, "org.freedesktop.DBus.Mock.AddSession", "string:auto", "string:seat0",
            "uint32:1000", "string:me", "boolean:true"},
        {loginTo, session, "org.freedesktop.DBus.Mock.AddMethod", interface, "string:Lock",
            "string:", "string:", "string:self.Set('org.freedesktop.login1.Session', 'LockedHint', True)"}};
    for (const auto& step : setUp)
        require(eventually([&] { return contains(ask(step), "method return"); }),
            "the login manager of the lab did not start");
    ownClients = clients();
}

std::vector<std::string> DesktopServices::environment() const
{
    return {"DBUS_SYSTEM_BUS_ADDRESS=" + address(), "DBUS_SESSION_BUS_ADDRESS=" + address()};
}

bool DesktopServices::isKeptAwakeByLogin() const
{
    return contains(
        ask({loginTo, manager, "org.freedesktop.login1.Manager.ListInhibitors"}), "string \"idle\"");
}

bool DesktopServices::isKeptAwakeBySaver() const
{
    return contains(saver.calls(), "Inhibit") && clients() > ownClients;
}

bool DesktopServices::isLocked() const
{
    return contains(
        ask({loginTo, session, "org.freedesktop.DBus.Properties.Get", interface, "string:LockedHint"}),
        "boolean true");
}

void DesktopServices::unlock()
{
    ask({loginTo, session, "org.freedesktop.DBus.Properties.Set", interface, "string:LockedHint",
        "variant:boolean:false"});
}

long DesktopServices::clients() const
{
    const auto names = ask({"--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.ListNames"});
    return std::ranges::count(names, ':');
}

std::string DesktopServices::ask(std::vector<std::string> request) const
{
    request.insert(request.begin(), {"dbus-send", "--bus=" + address(), "--print-reply"});
    return outputOf(request);
}

} // namespace pelorin::lab
