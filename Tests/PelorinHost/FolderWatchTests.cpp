#include "PelorinHost/Platform/FolderWatch.h"
#include "PelorinHost/Platform/ProcessWatch.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/Lab/Wait.h"

#include <csignal>
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

TEST_F(FolderWatchTest, tellsOfEntriesMadeWrittenRenamedAndRemoved)
{
    create_directories(root);
    watch->watch({root});
    EXPECT_EQ(changes(), Paths{});
    lab::write(root / "1", "x");
    EXPECT_EQ(changes(), Paths{root / "1"});
    std::ofstream(root / "1", std::ios::app) << "y";
    EXPECT_EQ(changes(), Paths{root / "1"});
    std::filesystem::rename(root / "1", root / "2");
    EXPECT_EQ(changes(), (Paths{root / "1", root / "2"}));
    std::filesystem::remove(root / "2");
    EXPECT_EQ(changes(), Paths{root / "2"});
}

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

TEST_F(FolderWatchTest, mayGoWhileItTells)
{
    create_directories(root);
    watch->watch({root});
    watch->onChange = [this](const Paths&) { watch.reset(); };
    lab::write(root / "1", "x");
    changes();
    EXPECT_FALSE(watch);
}

TEST(ProcessWatch, tellsOneProcessFromALaterOneAndItsEnd)
{
    ManualQueues queues;
    const auto child = lab::Process::start({"sleep", "1000"});
    const auto start = processStart(child->pid());
    ASSERT_TRUE(start);
    EXPECT_EQ(processStart(child->pid())->ticks, start->ticks);
    EXPECT_LT(std::chrono::abs(start->date - std::chrono::system_clock::now()), 60s);
    EXPECT_GT(start->ticks, processStart(1)->ticks);

    bool isOver = false;
    ProcessWatch watch(queues.makeQueue("q"), child->pid());
    watch.onEnd = [&] { isOver = true; };
    queues.runReady();
    EXPECT_FALSE(isOver);
    child->signal(SIGKILL);
    EXPECT_TRUE(lab::eventually([&] {
        queues.runReady();
        return isOver;
    }));
    EXPECT_FALSE(processStart(child->pid())) << "though nobody has reaped it yet";
    EXPECT_FALSE(processStart(0) || processStart(-1));
}

} // namespace
} // namespace pelorin
