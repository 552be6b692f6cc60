#include "PelorinHost/Agents/CodexMonitor.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/PelorinHost/LogLines.h"

#include <fmt/chrono.h>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr const char* someID = "0199aa11-2222-7333-8444-555566667777";
constexpr const char* otherID = "0199bb11-2222-7333-8444-555566667777";

json event(json payload)
{
    return {{"type", "event_msg"}, {"payload", std::move(payload)}};
}

json item(json payload)
{
    return {{"type", "response_item"}, {"payload", std::move(payload)}};
}

json meta(const std::string& id, const json& source = "cli")
{
    return {{"type", "session_meta"},
        {"payload",
            {{"id", id}, {"cwd", "/home/someone/src/site"}, {"source", source}, {"cli_version", "99"}}}};
}

// What this process has read so far, by the system's own count.
std::size_t bytesRead()
{
    std::ifstream counts("/proc/self/io");
    std::string name;
    std::size_t bytes = 0;
    counts >> name >> bytes;
    EXPECT_EQ(name, "rchar:");
    return bytes;
}

// An agent that is not there, and the files it would leave.
struct CodexMonitorTest : testing::Test {
    static constexpr auto recent = 2h;

    const LogLines log;
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("agents");
    lab::TemporaryFolder folder;
    std::filesystem::path root = folder.path() / "codex";
    std::filesystem::path database = root / "state_5.sqlite";
    std::filesystem::path rollout = rolloutOf(someID);
    std::unique_ptr<CodexMonitor> monitor;

    void begin() { monitor = std::make_unique<CodexMonitor>(root, root, recent, queue); }

    std::filesystem::path rolloutOf(const std::string& id, const std::string& day = "2023/12/18") const
    {
        return root / "sessions" / day / ("rollout-2023-12-18T10-00-00-" + id + ".jsonl");
    }

    std::string dated(json record) const
    {
        record["timestamp"] = fmt::format(
            "{:%Y-%m-%dT%H:%M:%S}.000Z", fmt::gmtime(std::chrono::system_clock::to_time_t(queue->wallNow())));
        return record.dump();
    }
    void append(const std::string& text, const std::filesystem::path& file) const
    {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::app) << text;
    }
    void add(const json& record) const { append(dated(record) + "\n", rollout); }
    void makeThread(
        const std::string& id, const std::string& day = "2023/12/18", const json& source = "cli") const
    {
        append(dated(meta(id, source)) + "\n"
                + dated(event({{"type", "user_message"}, {"message", "fix it"}})) + "\n",
            rolloutOf(id, day));
    }

    void sql(const std::string& script) const
    {
        std::filesystem::create_directories(root);
        const auto process = lab::Process::start({"python3", "-c",
            "import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); c.executescript(sys.argv[2]); c.close()",
            database.string(), script});
        ASSERT_EQ(process->waitForExit(20'000), 0) << script;
    }
    void list(const std::string& id, const std::string& title, const std::filesystem::path& path,
        bool isArchived) const
    {
        sql(fmt::format("CREATE TABLE IF NOT EXISTS threads (id, title, rollout_path, updated_at, archived);"
                        "DELETE FROM threads WHERE id = '{0}';"
                        "INSERT INTO threads VALUES ('{0}', '{1}', '{2}', {3}, {4})",
            id, title, path.string(), std::chrono::system_clock::to_time_t(queue->wallNow()),
            int(isArchived)));
    }

    std::vector<AgentTask> tasks()
    {
        queues.advance(1s);
        return monitor->activity().tasks;
    }
    std::vector<std::string> ids()
    {
        std::vector<std::string> found;
        for (const auto& task : tasks()) found.push_back(task.id.substr(std::string("codex:").size()));
        return found;
    }
    // "phase detail" of the only task; "" when there is none.
    std::string phase()
    {
        const auto found = tasks();
        EXPECT_LE(found.size(), 1U);
        return found.empty() ? "" : nameOf(found[0].phase) + (" " + found[0].detail.value_or("-"));
    }
};

TEST_F(CodexMonitorTest, followsTurnsByTheirMarksAndWithoutThem)
{
    begin();
    EXPECT_EQ(phase(), "") << "nothing is installed yet";
    const json call = item({{"type", "function_call"}, {"name", "shell"}, {"arguments", "secret"}});
    const json lastWord = item({{"type", "message"}, {"role", "assistant"}});
    const struct {
        json record;
        const char* expected;
    } older[]
        = {{meta(someID), "idle -"}, {event({{"type", "user_message"}, {"message", "fix\nit"}}), "running -"},
            {item({{"type", "reasoning"}}), "running -"}, {call, "running shell"},
            {item({{"type", "function_call_output"}, {"output", "secret"}}), "running shell"},
            {item({{"type", "message"}, {"role", "user"}}), "running shell"}, {lastWord, "idle -"},
            {call, "running shell"}, {lastWord, "idle -"}},
        newer[] = {{event({{"type", "task_started"}}), "running -"}, {call, "running shell"},
            {lastWord, "running shell"}, {event({{"type", "exec_approval_request"}}), "waiting shell"},
            {event({{"type", "brand_new"}}), "waiting shell"},
            {event({{"type", "task_started"}}), "running shell"},
            {event({{"type", "task_complete"}}), "idle -"}, {call, "idle shell"},
            {event({{"type", "turn_started"}}), "running shell"},
            {event({{"type", "turn_aborted"}}), "idle -"}};
    for (const auto& [record, expected] : older) {
        add(record);
        EXPECT_EQ(phase(), expected) << record;
    }
    for (const auto& [record, expected] : newer) {
        add(record);
        EXPECT_EQ(phase(), expected) << record;
    }
    const AgentTask task = tasks().at(0);
    EXPECT_EQ(task.id, std::string("codex:") + someID);
    EXPECT_EQ(task.title + " in " + task.project, "fix it in site");
    EXPECT_LE(task.since, std::chrono::floor<std::chrono::microseconds>(queue->wallNow()) - 2s);
}

TEST_F(CodexMonitorTest, isNotShakenByWhatItDoesNotKnow)
{
    makeThread(someID);
    begin();
    EXPECT_EQ(phase(), "running -");
    const std::string line = dated(event({{"type", "task_complete"}}));
    for (std::size_t cut = 0; cut < line.size(); ++cut) {
        append(line.substr(cut, 1), rollout);
        ASSERT_EQ(cut % 16 ? "running -" : phase(), "running -") << "half-written, " << cut;
    }
    append("\n", rollout);
    EXPECT_EQ(phase(), "idle -");
    for (const char* text : {"null", "[]", "{}", "\xFF\xFE", R"({"type": 7})", R"({"type": "event_msg"})",
             R"({"type": "event_msg", "payload": {"type": ["task_started"]}, "timestamp": "yesterday"})",
             R"({"type": "event_msg", "payload": {"type": "token_count", "rate_limits": {"primary": 3}}})"})
        append(std::string(text) + "\n", rollout);
    for (int i = 0; i < 5; ++i) {
        add({{"type", "hologram"}, {"payload", {{"version", 9}}}});
        EXPECT_EQ(phase(), "idle -");
    }
    EXPECT_FALSE(monitor->activity().usage);
    EXPECT_EQ(
        std::ranges::count_if(log.lines, [](const auto& text) { return text.find("hologram") != text.npos; }),
        1);
}

TEST_F(CodexMonitorTest, beginsAnewWithARolloutThatWasCutOrReplaced)
{
    makeThread(someID);
    add(event({{"type", "task_started"}}));
    begin();
    EXPECT_EQ(phase(), "running -");
    lab::write(rollout, dated(meta(someID)) + "\n");
    EXPECT_EQ(phase(), "idle -") << "cut";
    append(dated(event({{"type", "task_started"}})) + "\n", folder.path() / "new");
    std::filesystem::rename(folder.path() / "new", rollout);
    EXPECT_EQ(phase(), "running -") << "replaced, and known by its name alone";
    std::filesystem::remove(rollout);
    EXPECT_EQ(phase(), "");
    std::filesystem::create_symlink("/dev/zero", rollout);
    EXPECT_EQ(phase(), "");
    std::filesystem::remove_all(root);
    EXPECT_EQ(phase(), "");
    makeThread(someID);
    EXPECT_EQ(phase(), "running -") << "a new installation";
}

TEST_F(CodexMonitorTest, tellsWindowsByTheirLengthUntilTheyAreAnew)
{
    begin();
    const auto now = static_cast<double>(std::chrono::system_clock::to_time_t(queue->wallNow()));
    const auto limits = [](const json& primary, const json& secondary) {
        return event(
            {{"type", "token_count"}, {"rate_limits", {{"primary", primary}, {"secondary", secondary}}}});
    };
    const auto percents = [&] {
        queues.advance(1s);
        const auto usage = monitor->activity().usage.value_or(AgentUsage{});
        return std::pair(
            usage.session ? usage.session->percent : -1, usage.weekly ? usage.weekly->percent : -1);
    };
    const json session{{"used_percent", 12.5}, {"window_minutes", 300}, {"resets_at", now + 3600}};
    const json weekly{{"used_percent", 40}, {"window_minutes", 10080}, {"resets_at", now + 86400}};
    add(limits(session, weekly));
    EXPECT_EQ(percents(), std::pair(12.5, 40.0));
    add(limits(json{{"used_percent", 41}, {"window_minutes", 10080}, {"resets_at", now + 86400}}, nullptr));
    EXPECT_EQ(percents(), std::pair(12.5, 41.0)) << "in the other's place";
    add(limits({{"used_percent", 13}, {"resets_in_seconds", 3600}}, {{"used_percent", "much"}}));
    EXPECT_EQ(percents(), std::pair(13.0, 41.0)) << "as older versions have it";
    json late = limits(session, nullptr);
    late["timestamp"] = "2020-01-01T00:00:00Z";
    append(late.dump() + "\n", rolloutOf(otherID));
    EXPECT_EQ(percents(), std::pair(13.0, 41.0)) << "another thread's, of long ago";
    queues.advance(1h);
    EXPECT_EQ(percents(), std::pair(-1.0, 41.0));
    queues.advance(23h);
    EXPECT_FALSE(monitor->activity().usage);
}

TEST_F(CodexMonitorTest, findsThreadsOfEveryDayAndLeavesOutTheOldAndTheLed)
{
    makeThread("of-yesterday", "2023/12/17");
    makeThread("of-long-ago", "2023/01/01");
    makeThread("led", "2023/12/18", {{"subagent", "review"}});
    std::filesystem::last_write_time(rolloutOf("of-long-ago", "2023/01/01"),
        std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 365 * 20));
    begin();
    EXPECT_THAT(ids(), UnorderedElementsAre("of-yesterday"));
    makeThread("of-tomorrow", "2023/12/19");
    EXPECT_THAT(ids(), UnorderedElementsAre("of-yesterday", "of-tomorrow"));
    makeThread("of-new-year", "2024/01/01");
    EXPECT_THAT(ids(), UnorderedElementsAre("of-yesterday", "of-tomorrow", "of-new-year"));
    makeThread("of-new-year", "2024/01/02"); // a copy of it that goes on
    EXPECT_EQ(ids().size(), 3U);
    queues.advance(recent);
    EXPECT_TRUE(ids().empty());
    makeThread("of-yesterday", "2023/12/17");
    EXPECT_THAT(ids(), ElementsAre("of-yesterday")) << "which goes on";
    for (int i = 0; i < 100; ++i) makeThread("many-" + std::to_string(i), "2024/01/02");
    EXPECT_EQ(ids().size(), 64U) << "whoever makes them up";
}

TEST_F(CodexMonitorTest, takesTitlesFromTheListAndFollowsItToOldThreadsOnly)
{
    const auto old = rolloutOf("old", "2022/02/02");
    makeThread(someID);
    makeThread("old", "2022/02/02");
    std::filesystem::last_write_time(
        old, std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 365 * 20));
    for (int day = 1; day < 28; ++day)
        makeThread("led", fmt::format("2023/11/{:02}", day), {{"subagent", ""}});
    begin();
    EXPECT_THAT(ids(), ElementsAre(someID));
    append("not ours\n", folder.path() / "rollout-x.jsonl");
    list(someID, "Fixing it", rollout, false);
    list("old", "Going on", old, false);
    list("x", "elsewhere", root / "sessions" / ".." / ".." / "rollout-x.jsonl", false);
    list("y", "elsewhere", folder.path() / "rollout-x.jsonl", false);
    queues.advance(CodexMonitor::databasePause);
    std::vector<std::string> titles;
    for (const auto& task : tasks()) titles.push_back(task.title);
    EXPECT_THAT(titles, UnorderedElementsAre("Fixing it", "Going on"));
    append(dated(event({{"type", "task_complete"}})) + "\n", old);
    std::vector<AgentPhase> phases;
    for (const auto& task : tasks()) phases.push_back(task.phase);
    EXPECT_THAT(phases, UnorderedElementsAre(AgentPhase::running, AgentPhase::idle));

    list(someID, "Fixing it", rollout, true);
    EXPECT_THAT(ids(), ElementsAre("old")) << "the other was put away";
    list(someID, "Fixing it", rollout, false);
    EXPECT_THAT(ids(), ElementsAre("old")) << "asked too soon";
    queues.advance(CodexMonitor::databasePause);
    EXPECT_EQ(ids().size(), 2U);
    list(someID, "Fixing it", rollout, true);
    queues.advance(CodexMonitor::databasePause);
    for (int i = 0; i < 3; ++i) {
        lab::write(database, "no database any more " + std::to_string(i));
        queues.advance(CodexMonitor::databasePause);
    }
    EXPECT_EQ(tasks().at(0).title, "Going on") << "as last known";
    EXPECT_EQ(std::ranges::count_if(
                  log.lines, [](const auto& text) { return text.find("can't be read") != text.npos; }),
        1);
}

TEST_F(CodexMonitorTest, readsLittleOfHugeRollouts)
{
    makeThread(someID);
    std::filesystem::resize_file(rollout, 100 << 20); // a hole: one endless line
    append("\n" + dated(event({{"type", "task_started"}})) + "\n", rollout);
    constexpr std::size_t once = LineFile::headBytes + LineFile::tailBytes;
    constexpr std::size_t slack = 64 << 10; // what else is read, such as the system's notices
    std::size_t before = bytesRead();
    begin();
    EXPECT_EQ(phase(), "running -");
    EXPECT_EQ(monitor->activity().tasks.at(0).title, "fix it");
    EXPECT_LT(bytesRead() - before, once + slack);
    before = bytesRead();
    for (int i = 0; i < 100; ++i) {
        add(event({{"type", i % 2 ? "task_started" : "task_complete"}}));
        ASSERT_EQ(phase(), i % 2 ? "running -" : "idle -");
    }
    EXPECT_LT(bytesRead() - before, slack);
}

TEST_F(CodexMonitorTest, mayGoAtAnyMoment)
{
    makeThread(someID);
    begin();
    monitor->onChange = [this] { monitor.reset(); };
    add(event({{"type", "task_started"}}));
    queues.advance(1s);
    EXPECT_FALSE(monitor);
    begin();
    int changes = 0; // the file's, and then what the list had to say
    monitor->onChange = [&, this] {
        if (++changes == 2) monitor.reset();
    };
    list(someID, "Fixing it", rollout, false);
    queues.advance(CodexMonitor::databasePause);
    EXPECT_FALSE(monitor);
}

} // namespace
} // namespace pelorin
