#include "PelorinHost/Agents/LineFile.h"
#include "Tests/Lab/Files.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

namespace pelorin {
namespace {

using Lines = std::vector<std::string>;

struct LineFileTest : testing::Test {
    lab::TemporaryFolder folder;
    std::filesystem::path path = folder.path() / "some.jsonl";
    LineFile file{path};
    int restarts = 0;

    void append(const std::string& text) const { std::ofstream(path, std::ios::app) << text; }
    Lines read(LineFile::Found expected = LineFile::Found::sameFile)
    {
        Lines lines;
        EXPECT_EQ(file.read([&](std::string_view line) { lines.emplace_back(line); }, [&] { ++restarts; }),
            expected);
        return lines;
    }
};

TEST_F(LineFileTest, readsHeadAndTailOfAHugeFileAndTheTailOfAHugeAddition)
{
    append("head\n");
    std::filesystem::resize_file(path, 100 << 20); // a hole: one endless line
    append("\nbefore\n" + std::string(LineFile::tailBytes - 100, 'x') + "\ntail\n");
    EXPECT_EQ(read(LineFile::Found::anotherFile),
        (Lines{"head", "before", std::string(LineFile::tailBytes - 100, 'x'), "tail"}));
    append("lost\n" + std::string(LineFile::tailBytes * 3, 'y') + "\nlast\n");
    EXPECT_EQ(read(), Lines{"last"});
}

TEST_F(LineFileTest, leavesOutALineThatIsTooLongHoweverItComes)
{
    append("one\n");
    read(LineFile::Found::anotherFile);
    for (int i = 0; i < 7; ++i) {
        append(std::string(LineFile::tailBytes / 2, 'z'));
        EXPECT_EQ(read(), Lines{}) << i;
    }
    append("end of it\ntwo\n");
    EXPECT_EQ(read(), Lines{"two"});
}

TEST_F(LineFileTest, readsRegularFilesOnlyAndFollowsNoLinks)
{
    lab::write(folder.path() / "secret", "key\n");
    std::filesystem::create_symlink(folder.path() / "secret", path);
    EXPECT_EQ(read(LineFile::Found::nothing), Lines{});
    std::filesystem::remove(path);
    std::filesystem::create_symlink(path, path);
    EXPECT_EQ(read(LineFile::Found::nothing), Lines{});
    std::filesystem::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read(LineFile::Found::nothing), Lines{});
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(read(LineFile::Found::nothing), Lines{});
}

} // namespace
} // namespace pelorin
