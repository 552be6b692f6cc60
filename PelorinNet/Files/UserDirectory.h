#pragma once

#include <filesystem>

namespace pelorin {

// One of the XDG base directories: what the variable says, unless it is unset or relative, or else this path
// under the user's home.
std::filesystem::path userDirectory(const char* variable, const char* underHome);

} // namespace pelorin
