#pragma once

#include <filesystem>
#include <string>

namespace pelorin::lab {

// A folder for one test, removed with it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return folder; }

private:
    std::filesystem::path folder;
};

std::string contentOf(const std::filesystem::path& file); // empty when there is none
void write(const std::filesystem::path& file, const std::string& content);

} // namespace pelorin::lab
