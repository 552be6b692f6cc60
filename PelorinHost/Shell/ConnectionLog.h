#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>

namespace pelorin {

// Who connected, when and how it ended: one dated line each, for the user to read. Queue: the controller's,
// which owns it.
class ConnectionLog {
public:
    explicit ConnectionLog(const std::filesystem::path& directory); // made when it is missing

    // A failure to write is logged, and the line lost.
    void append(const std::string& line, WallTime when);

private:
    Log log{"controller"};
    std::filesystem::path file;
};

} // namespace pelorin
