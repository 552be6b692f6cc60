#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <filesystem>
#include <string>
#include <vector>

namespace pelorin {

// Who connected, when and how it ended: one dated line each, for the user to read, in connections.log. Once
// that is full it becomes connections.log.1, in place of the one before, so that both together are bounded.
// Queue: the controller's, which owns it.
class ConnectionLog {
public:
    static constexpr std::uintmax_t mostBytes = 1 << 20; // some ten thousand lines

    explicit ConnectionLog(const std::filesystem::path& directory); // made when it is missing

    static constexpr std::size_t mostLatest = 10;
    // The latest lines, newest first; before a file is full its predecessor's are not asked for.
    std::vector<std::string> latest() const;
    // A failure to write is logged, and the line lost.
    void append(const std::string& line, WallTime when);

private:
    void makeRoomFor(const std::string& text);

    Log log{"controller"};
    std::filesystem::path file;
};

} // namespace pelorin
