#include "Tests/Lab/BuildFolder.h"

namespace pelorin::lab {

std::string programPath(const char* name)
{
    return std::string(PELORIN_BIN_DIR) + "/" + name;
}

std::string sourcePath(const char* name)
{
    return std::string(PELORIN_SOURCE_DIR) + "/" + name;
}

} // namespace pelorin::lab
