#pragma once

#include "PelorinHost/Platform/System.h"

namespace pelorin {

// The host name, and the base directories as XDG names them.
class LinuxSystem final : public System {
public:
    std::string hostName() override;
    std::filesystem::path supportDirectory() override;
    std::filesystem::path logDirectory() override;
};

} // namespace pelorin
