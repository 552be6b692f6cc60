#include "PelorinViewer/HostList.h"

#include "PelorinNet/Files/UserDirectory.h"
#include "PelorinViewer/Viewer.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using Json = nlohmann::ordered_json;

// Without the key: lists are looked at and passed on.
Json toJSON(const PairedHost& host)
{
    return {{"name", host.name}, {"address", host.place.address},
        {"dnsName", host.place.dnsName ? Json(*host.place.dnsName) : Json()}, {"port", host.place.port},
        {"deviceID", host.key.identity}};
}

std::string textOf(const Json& value)
{
    return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

int fail(ViewerExit exit, const std::string& why)
{
    fmt::print(stderr, "pelorin-viewer: {}\n", why);
    return static_cast<int>(exit);
}

} // namespace

PairedHosts ownPairedHosts()
{
    return PairedHosts(userDirectory("XDG_CONFIG_HOME", ".config") / "Pelorin" / "viewer");
}

int listHosts(const PairedHosts& hosts, bool printsJSON)
{
    const auto list = hosts.list();
    if (!list) return fail(ViewerExit::failed, list.error());
    Json report = Json::array();
    for (const PairedHost& host : *list) report.push_back(toJSON(host));
    if (printsJSON) {
        fmt::print("{}\n", textOf({{"hosts", report}}));
        return 0;
    }
    if (list->empty()) fmt::print("paired with no host\n");
    for (const PairedHost& host : *list)
        fmt::print("{}:{}  {}  {}\n", host.place.address, host.place.port, host.key.identity, host.name);
    return 0;
}

int forgetHost(const PairedHosts& hosts, const std::string& name, bool printsJSON)
{
    const auto forgotten = hosts.forget(name);
    if (!forgotten) return fail(ViewerExit::usage, forgotten.error());
    if (printsJSON)
        fmt::print("{}\n", textOf({{"forgotten", toJSON(*forgotten)}}));
    else
        fmt::print("Forgot {}. It lets this device in until `pelorin-host remove {}` is run there.\n",
            forgotten->name, forgotten->key.identity);
    return 0;
}

} // namespace pelorin
