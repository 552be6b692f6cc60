#pragma once

#include "PelorinHost/Platform/System.h"

namespace pelorin::fakes {

class FakeSystem final : public System {
public:
    explicit FakeSystem(std::filesystem::path newDirectory) : directory(std::move(newDirectory)) {}

    std::string name = "test-desktop";
    std::filesystem::path directory;

    std::string hostName() override { return name; }
    std::filesystem::path supportDirectory() override { return directory / "support"; }
    std::filesystem::path logDirectory() override { return directory / "log"; }
};

} // namespace pelorin::fakes
