#pragma once

#include "PelorinCore/Result.h"
#include "PelorinNet/OwnedDescriptor.h"

#include <filesystem>
#include <string>

namespace pelorin {

// Local stream sockets by their path. The error is a text for people.
Result<OwnedDescriptor, std::string> listenLocally(
    const std::filesystem::path& path); // mode 0600, non-blocking
Result<OwnedDescriptor, std::string> connectLocally(const std::filesystem::path& path);

} // namespace pelorin
