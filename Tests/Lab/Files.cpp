#include "Tests/Lab/Files.h"

#include "PelorinCore/Result.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace pelorin::lab {

TemporaryFolder::TemporaryFolder()
{
    auto pattern = (std::filesystem::temp_directory_path() / "pelorin-test-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    folder = pattern;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string contentOf(const std::filesystem::path& file)
{
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

void write(const std::filesystem::path& file, const std::string& content)
{
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

} // namespace pelorin::lab
