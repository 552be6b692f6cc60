#include "PelorinHost/Agents/CodexDatabase.h"
#include "PelorinHost/Platform/FolderWatch.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/Lab/Wait.h"

#include <csignal>
#include <gmock/gmock.h>
#include <map>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// Another program that has a database open: the first half of script is committed, and what follows "HOLD"
// happens inside a transaction that stays open.
std::unique_ptr<lab::Process> writer(const std::filesystem::path& database, const std::string& script)
{
    constexpr const char* program = R"(
import sqlite3, sys, time
connection = sqlite3.connect(sys.argv[1], isolation_level=None)
committed, _, held = sys.argv[2].partition("HOLD")
for text in (committed, held):
    for statement in text.split(";"):
        connection.execute(statement).fetchall()
open(sys.argv[1] + ".done", "w").close()
if held: time.sleep(1000)
connection.close()
)";
    auto process = lab::Process::start({"python3", "-c", program, database.string(), script});
    const auto done = database.string() + ".done";
    EXPECT_TRUE(lab::eventually([&] { return std::filesystem::exists(done); })) << script;
    std::filesystem::remove(done);
    const bool isOver = script.find("HOLD") == std::string::npos;
    EXPECT_EQ(process->waitForExit(isOver ? 20'000 : 0), isOver ? 0 : -1) << script;
    return process;
}

struct CodexDatabaseTest : testing::Test {
    lab::TemporaryFolder folder;
    std::filesystem::path database = folder.path() / "state_5.sqlite";

    std::map<std::string, std::string> files() const
    {
        std::map<std::string, std::string> contents;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
            contents[entry.path().filename()] = lab::contentOf(entry.path());
        return contents;
    }

    // "id title" of each, or the error.
    std::string read() const
    {
        const auto threads = CodexDatabase::threads(database);
        if (!threads) return threads.error();
        std::string text;
        for (const auto& thread : *threads) text += thread.id + " " + thread.title + "\n";
        return text;
    }
};

TEST_F(CodexDatabaseTest, readsOfEachVersionWhatItHas)
{
    const struct {
        const char* script;
        const char* expected;
    } rows[] = {
        {"CREATE TABLE threads (id TEXT, title TEXT, updated_at INTEGER, updated_at_ms INTEGER, brand_new "
         "TEXT);"
         "INSERT INTO threads VALUES ('a', 'one', 100, 100500, ''), ('b', 'two' || char(10) || 'lines', 100, "
         "100900, ''), ('c', 'of before', 100, NULL, '')",
            "b two lines\na one\nc of before\n"},
        {"CREATE TABLE threads (id TEXT, updated_at INTEGER); INSERT INTO threads VALUES ('a', 1), ('b', 2)",
            "b \na \n"},
        {"CREATE TABLE threads (id, title, updated_at); INSERT INTO threads VALUES "
         "(x'FF00', 7, 'today'), (NULL, zeroblob(900000), 9e300)",
            nullptr}, // anything, as long as it is no harm
        {"CREATE TABLE threads (name TEXT)", "no table of threads"},
        {"CREATE TABLE other (id TEXT)", "no table of threads"},
        {"CREATE TABLE other (id TEXT); CREATE VIEW threads AS SELECT id FROM other", ""},
    };
    for (const auto& [script, expected] : rows) {
        std::filesystem::remove(database);
        writer(database, script);
        const std::string found = read();
        if (!expected) continue;
        EXPECT_THAT(found, *expected ? testing::Matcher<std::string>(expected) : HasSubstr("view")) << script;
    }
    for (const std::string& content : {std::string("no database"), std::string(4096, '\0')}) {
        lab::write(database, content);
        EXPECT_FALSE(CodexDatabase::threads(database)) << content.size();
    }
    std::filesystem::remove(database);
    EXPECT_FALSE(CodexDatabase::threads(database));
    EXPECT_TRUE(files().empty());
}

TEST_F(CodexDatabaseTest, readsDatesPathsAndWhatIsPutAwayAndNoMoreThanTheLatest)
{
    writer(database,
        "CREATE TABLE threads (id, title, updated_at, cwd, rollout_path, archived); INSERT INTO threads "
        "VALUES "
        "('a', 't', 1700000000, '/home/someone/site', '/r/rollout-1.jsonl', 1)");
    const auto threads = CodexDatabase::threads(database);
    ASSERT_TRUE(threads);
    EXPECT_EQ(threads->at(0),
        (CodexDatabase::Thread{
            "a", "t", "/home/someone/site", "/r/rollout-1.jsonl", DeckDate(1'700'000'000s), true}));
    writer(database,
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000) "
        "INSERT INTO threads SELECT i, 't', i, '', '', 0 FROM n");
    EXPECT_EQ(CodexDatabase::threads(database)->size(), CodexDatabase::mostThreads);
    writer(database,
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300000) "
        "INSERT INTO threads SELECT i, 't', i, '', '', 0 FROM n");
    EXPECT_EQ(read(), "interrupted") << "before it takes long";
}

TEST_F(CodexDatabaseTest, leavesNoTraceWhateverAWriterDoes)
{
    const std::string table = "CREATE TABLE threads (id, title); INSERT INTO threads VALUES ('a', 'old');";
    const struct {
        const char* name;
        std::string script;
        bool isKilled;
        const char* expected;
    } rows[] = {
        {"at rest", table + "SELECT 1", false, "a old\n"},
        {"locked", table + "HOLD BEGIN EXCLUSIVE; UPDATE threads SET title = 'new'", false,
            "database is locked"},
        {"journal of one killed", table + "HOLD BEGIN EXCLUSIVE; UPDATE threads SET title = 'new'", true,
            "a old\n"},
        {"log at rest", "PRAGMA journal_mode=WAL;" + table + "SELECT 1", false, "a old\n"},
        {"log in use",
            "PRAGMA journal_mode=WAL;" + table + "HOLD BEGIN IMMEDIATE; UPDATE threads SET title = 'new'",
            false, "a old\n"},
        {"log of one killed", "PRAGMA journal_mode=WAL;" + table + "HOLD BEGIN", true, "a old\n"},
    };
    for (const auto& [name, script, isKilled, expected] : rows) {
        for (const auto& entry : files()) std::filesystem::remove(folder.path() / entry.first);
        const auto process = writer(database, script);
        if (isKilled) {
            process->signal(SIGKILL);
            process->waitForExit(20'000);
        }
        const auto before = files();
        ManualQueues queues;
        FolderWatch watch(queues.makeQueue("files"));
        watch.watch({folder.path()});
        watch.onChange
            = [name = name](const FolderWatch::Paths&) { ADD_FAILURE() << "a change of our own, " << name; };
        EXPECT_EQ(read(), expected) << name;
        queues.advance(1s);
        EXPECT_EQ(files(), before) << name;
    }
}

TEST_F(CodexDatabaseTest, isTheNewestOfThoseInTheFolder)
{
    EXPECT_FALSE(CodexDatabase::find(folder.path() / "none"));
    EXPECT_FALSE(CodexDatabase::find(folder.path()));
    for (const char* name : {"state_9.sqlite", "state_10.sqlite", "state_11.sqlite-wal", "state_x.sqlite",
             "state_.sqlite", "state_99999999999.sqlite", "logs_12.sqlite"})
        lab::write(folder.path() / name, "");
    std::filesystem::create_directory(folder.path() / "state_13.sqlite");
    std::filesystem::create_symlink("state_9.sqlite", folder.path() / "state_14.sqlite");
    EXPECT_EQ(CodexDatabase::find(folder.path()), folder.path() / "state_10.sqlite");
}

} // namespace
} // namespace pelorin
