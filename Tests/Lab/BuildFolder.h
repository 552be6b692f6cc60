#pragma once

#include <string>

namespace pelorin::lab {

std::string programPath(const char* name); // of a program of this build
std::string sourcePath(const char* name); // of a file that it was built from

} // namespace pelorin::lab
