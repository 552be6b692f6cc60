#include "PelorinViewer/HostList.h"

#include "PelorinNet/Files/UserDirectory.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinViewer/OwnName.h"
#include "PelorinViewer/Viewer.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* identityFile = "viewer-identity.json";

// Without the key: lists are looked at and passed on.
Json toJSON(const PairedHost& host)
{
    const auto orNull = [](bool isThere, const auto& value) { return isThere ? Json(value) : Json(); };
    const bool hasTailnet = host.hasTailnet(), hasRemote = host.remote.has_value();
    const RemotePlace remote = host.remote.value_or(RemotePlace{});
    return {{"name", host.name}, {"address", orNull(hasTailnet, host.place.address)},
        {"dnsName", orNull(host.place.dnsName.has_value(), host.place.dnsName.value_or(""))},
        {"port", orNull(hasTailnet, host.place.port)}, {"deviceID", orNull(hasTailnet, host.key.identity)},
        {"hostID", orNull(hasRemote, remote.hostID)}, {"service", orNull(hasRemote, remote.service)}};
}

std::string lineOf(const PairedHost& host)
{
    std::string line;
    if (host.hasTailnet())
        line = fmt::format("{}:{}  {}  ", host.place.address, host.place.port, host.key.identity);
    if (host.remote) line += fmt::format("{} at {}  ", host.remote->hostID, host.remote->service);
    return line + host.name + "\n";
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

std::filesystem::path ownDirectory()
{
    return userDirectory("XDG_CONFIG_HOME", ".config") / "Pelorin" / "viewer";
}

PairedHosts ownPairedHosts()
{
    return PairedHosts(ownDirectory());
}

Result<std::shared_ptr<const DeviceIdentity>, std::string> ownIdentity()
{
    auto identity = SoftwareIdentity::loadOrCreate(
        ownDirectory() / identityFile, ownName(), std::chrono::system_clock::now());
    if (!identity) return std::unexpected(identity.error().description);
    return std::shared_ptr<const DeviceIdentity>(std::move(*identity));
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
    for (const PairedHost& host : *list) fmt::print("{}", lineOf(host));
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
            forgotten->name, forgotten->hasTailnet() ? forgotten->key.identity : "ID");
    return 0;
}

} // namespace pelorin
