#pragma once

#include <filesystem>
#include <string>

namespace pelorin {

// What the machine is called and where its user's files go.
class System {
public:
    virtual ~System() = default;

    virtual std::string hostName() = 0;
    // Without "Pelorin" folder name doubled: Linux $XDG_CONFIG_HOME/Pelorin, macOS Application
    // Support/Pelorin.
    virtual std::filesystem::path supportDirectory() = 0;
    // Linux $XDG_STATE_HOME/Pelorin, macOS Library/Logs/Pelorin.
    virtual std::filesystem::path logDirectory() = 0;
};

} // namespace pelorin
