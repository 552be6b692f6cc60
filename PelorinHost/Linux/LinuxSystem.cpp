#include "PelorinHost/Linux/LinuxSystem.h"

#include <array>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace pelorin {
namespace {

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
    const passwd* user = getpwuid(getuid());
    return user && user->pw_dir ? user->pw_dir : "/";
}

// A relative path in such a variable is to be ignored.
std::filesystem::path xdgDirectory(const char* variable, const char* underHome)
{
    if (const char* value = std::getenv(variable); value && *value == '/') return value;
    return homeDirectory() / underHome;
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
    return xdgDirectory("XDG_CONFIG_HOME", ".config") / "Pelorin";
}

std::filesystem::path LinuxSystem::logDirectory()
{
    return xdgDirectory("XDG_STATE_HOME", ".local/state") / "Pelorin";
}

} // namespace pelorin
