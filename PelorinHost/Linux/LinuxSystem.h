#pragma once

#include "PelorinHost/Platform/System.h"

namespace pelorin {

// The host name and the directories of the XDG base directory specification.
class LinuxSystem final : public System {
public:
    std::string hostName() override;
    std::filesystem::path supportDirectory() override;
    std::filesystem::path logDirectory() override;
};

} // namespace pelorin
