#include "PelorinNet/Files/UserDirectory.h"

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

} // namespace

std::filesystem::path userDirectory(const char* variable, const char* underHome)
{
    if (const char* value = std::getenv(variable); value && *value == '/') return value;
    return homeDirectory() / underHome;
}

} // namespace pelorin
