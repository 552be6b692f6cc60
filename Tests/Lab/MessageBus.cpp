#include "Tests/Lab/MessageBus.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

namespace pelorin::lab {

MessageBus::MessageBus()
{
    const auto configuration = folder.path() / "bus.conf";
    write(configuration,
        "<busconfig><type>session</type><auth>EXTERNAL</auth><listen>" + address()
            + "</listen><policy context='default'><allow send_destination='*'/><allow receive_sender='*'/>"
              "<allow own='*'/></policy></busconfig>");
    running = Process::start({"dbus-daemon", "--nofork", "--config-file=" + configuration.string()});
    require(eventually([this] { return std::filesystem::exists(folder.path() / "bus"); }),
        "the message bus of the lab did not start");
}

BusService::BusService(const MessageBus& bus, const std::string& newName, const std::string& newPath,
    const std::string& newInterface)
    : address(bus.address()),
      name(newName),
      path(newPath),
      interface(newInterface),
      running(Process::start({"/usr/bin/python3", "-m", "dbusmock", "--session", "-l",
                                 (folder.path() / "calls").string(), name, path, interface},
          {"DBUS_SESSION_BUS_ADDRESS=" + address}))
{
}

void BusService::addMethod(
    const std::string& method, const std::string& returns, const std::string& body, const std::string& takes)
{
    tell({"AddMethod", "string:" + interface, "string:" + method, "string:" + takes, "string:" + returns,
        "string:" + body});
}

void BusService::addFlag(const std::string& property)
{
    tell({"AddProperty", "string:" + interface, "string:" + property, "variant:boolean:false"});
}

// Until it is on the bus, which takes a moment.
void BusService::tell(std::vector<std::string> request) const
{
    request[0] = "org.freedesktop.DBus.Mock." + request[0];
    request.insert(
        request.begin(), {"dbus-send", "--bus=" + address, "--print-reply", "--dest=" + name, path});
    require(eventually([&] { return Process::start(request)->waitForExit(20'000) == 0; }),
        "a service of the lab did not start");
}

} // namespace pelorin::lab
