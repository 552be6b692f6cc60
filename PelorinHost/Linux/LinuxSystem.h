#pragma once

#include "PelorinHost/Platform/System.h"

namespace pelorin {

// The host name, the base directories as XDG names them, and tools as processes of ours.
class LinuxSystem final : public System {
public:
    std::string hostName() override;
    std::filesystem::path supportDirectory() override;
    std::filesystem::path logDirectory() override;
    std::vector<InterfaceAddress> interfaceAddresses() override;
    bool isExecutableFile(const std::string& path) override;
    Subscription runTool(QueueRef queue, ToolRun run, ToolDone done) override;
};

} // namespace pelorin
