#pragma once

#include "PelorinCore/Result.h"

#include <chrono>
#include <filesystem>
#include <string>

namespace pelorin {

// Sends one request to the host that runs in directory and waits for its whole reply. The error is a text for
// people. Blocks, up to patience at a time; a running host answers in milliseconds. For programs of the
// command line.
Result<std::string, std::string> askHost(const std::filesystem::path& directory, const std::string& request,
    std::chrono::seconds patience = std::chrono::seconds(10));

} // namespace pelorin
