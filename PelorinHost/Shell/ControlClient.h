#pragma once

#include "PelorinCore/Result.h"

#include <filesystem>
#include <string>

namespace pelorin {

// Sends one request to the host that runs in directory and waits for its whole reply. The error is a text for
// people. Blocks; for programs of the command line.
Result<std::string, std::string> askHost(const std::filesystem::path& directory, const std::string& request);

} // namespace pelorin
