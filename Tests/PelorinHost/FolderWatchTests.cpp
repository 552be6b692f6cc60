#include "PelorinHost/Platform/FolderWatch.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"

#include <fstream>
#include <gtest/gtest.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using std::filesystem::create_directories;
using Paths = FolderWatch::Paths;

struct FolderWatchTest : testing::Test {
    ManualQueues queues;
    lab::TemporaryFolder folder;
    std::filesystem::path root = folder.path() / "a" / "b";
    std::unique_ptr<FolderWatch> watch = std::make_unique<FolderWatch>(queues.makeQueue("files"));
    std::vector<Paths> heard;

    FolderWatchTest()
    {
        watch->onChange = [this](const Paths& changed) { heard.push_back(changed); };
    }

    Paths changes() // all of the next second
    {
        heard.clear();
        queues.advance(1s);
        Paths all;
        for (const auto& changed : heard) all.insert(changed.begin(), changed.end());
        return all;
    }
};

TEST_F(FolderWatchTest, waitsForFoldersThatComeLaterGoAndComeAgain)
{
    watch->watch({root});
    for (int round = 0; round < 3; ++round) {
        create_directories(root);
        lab::write(root / "early", "x");
        EXPECT_TRUE(changes().contains(root)) << "with whatever is in it already";
        lab::write(root / "late", "x");
        EXPECT_EQ(changes(), Paths{root / "late"});
        if (round == 0)
            std::filesystem::rename(root.parent_path(), folder.path() / "moved");
        else
            std::filesystem::remove_all(root.parent_path());
        EXPECT_TRUE(changes().contains(root));
    }
}

TEST_F(FolderWatchTest, wakesTwiceASecondHoweverMuchIsWritten)
{
    create_directories(root);
    watch->watch({root});
    std::ofstream file(root / "log");
    for (int i = 0; i < 300; ++i) {
        file << "line" << std::endl;
        queues.advance(10ms);
    }
    EXPECT_LE(heard.size(), 7U);
    EXPECT_GE(heard.size(), 5U);
}

TEST_F(FolderWatchTest, countsEverythingAsChangedWhenTheSystemLostCount)
{
    create_directories(root);
    watch->watch({root});
    std::ofstream one(root / "1");
    std::ofstream two(root / "2");
    for (int i = 0; i < 20'000; ++i) (i % 2 ? one : two) << "x" << std::flush; // equal neighbours would merge
    EXPECT_TRUE(changes().contains(root));
    lab::write(root / "3", "");
    EXPECT_EQ(changes(), Paths{root / "3"});
}

TEST_F(FolderWatchTest, knowsAFolderByEveryNameItHasAndGivesUpOnLoopsOfLinks)
{
    create_directories(root);
    const auto link = folder.path() / "link";
    const auto loop = folder.path() / "loop";
    std::filesystem::create_directory_symlink(root, link);
    std::filesystem::create_directory_symlink(loop, loop);
    watch->watch({root, link, loop});
    lab::write(root / "1", "x");
    EXPECT_EQ(changes(), (Paths{root / "1", link / "1"}));
    watch->watch({link});
    lab::write(root / "2", "x");
    EXPECT_EQ(changes(), Paths{link / "2"});
    watch->watch({});
    lab::write(root / "3", "x");
    EXPECT_EQ(changes(), Paths{});
}

} // namespace
} // namespace pelorin
