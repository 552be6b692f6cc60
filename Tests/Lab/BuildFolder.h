#pragma once

#include <string>

namespace pelorin::lab {

std::string programPath(const char* name); // of a program of this build

} // namespace pelorin::lab
