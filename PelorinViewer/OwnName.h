#pragma once

#include <string>

namespace pelorin {

std::string ownName(); // what a host calls this machine

} // namespace pelorin
