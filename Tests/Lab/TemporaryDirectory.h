#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace pelorin {

// A directory of its own, gone with all its content at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "pelorin-XXXXXX").string();
        if (::mkdtemp(pattern.data())) directory = pattern;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }

private:
    std::filesystem::path directory;
};

} // namespace pelorin
