#include "PelorinHost/Linux/LinuxSystem.h"

#include "PelorinHost/Linux/LinuxTool.h"
#include "PelorinNet/Files/UserDirectory.h"

#include <arpa/inet.h>
#include <array>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pelorin {
namespace {

// The text of an IP address, empty for any other kind.
std::string addressText(const sockaddr* address)
{
    const void* bytes = nullptr;
    if (address && address->sa_family == AF_INET)
        bytes = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    if (address && address->sa_family == AF_INET6)
        bytes = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    std::array<char, INET6_ADDRSTRLEN> text{};
    return bytes && inet_ntop(address->sa_family, bytes, text.data(), text.size()) ? text.data() : "";
}

} // namespace

std::string LinuxSystem::hostName()
{
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == 0) return "Linux";
    const std::string full(name.data());
    return full.substr(0, full.find('.'));
}

std::filesystem::path LinuxSystem::supportDirectory()
{
    return userDirectory("XDG_CONFIG_HOME", ".config") / "Pelorin";
}

std::filesystem::path LinuxSystem::logDirectory()
{
    return userDirectory("XDG_STATE_HOME", ".local/state") / "Pelorin";
}

std::vector<InterfaceAddress> LinuxSystem::interfaceAddresses()
{
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = first; entry; entry = entry->ifa_next) {
        auto text = addressText(entry->ifa_addr);
        if (!text.empty() && entry->ifa_flags & IFF_UP)
            addresses.push_back({entry->ifa_name, std::move(text)});
    }
    return addresses;
}

bool LinuxSystem::isExecutableFile(const std::string& path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

Subscription LinuxSystem::runTool(QueueRef queue, ToolRun run, ToolDone done)
{
    return LinuxTool::start(std::move(queue), std::move(run), std::move(done));
}

} // namespace pelorin
