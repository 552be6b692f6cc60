#include "PelorinHost/Agents/AgentDeckKeeper.h"
#include "PelorinHost/Agents/LooseJSON.h"
#include "PelorinHost/Shell/AgentCommands.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"
#include "Tests/PelorinHost/LogLines.h"

#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* someID = "0b7e3c52-91a4-4f0e-8a35-5d1f7c2e9b10";
constexpr const char* otherID = "f2d1c0aa-1111-4222-8333-444455556666";

// Agents that are not there, and the files they would leave.
struct ClaudeMonitorTest : testing::Test {
    const LogLines log;
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("agents");
    lab::TemporaryFolder folder;
    std::filesystem::path root = folder.path() / "claude";
    std::unique_ptr<lab::Process> process = lab::Process::start({"sleep", "1000"});
    std::unique_ptr<ClaudeMonitor> monitor;

    void begin() { monitor = std::make_unique<ClaudeMonitor>(root, queue); }

    double nowMs() const
    {
        return std::chrono::duration<double, std::milli>(queue->wallNow().time_since_epoch()).count();
    }

    json stateOf(const lab::Process& running, const std::string& status, const std::string& id = someID) const
    {
        const auto start = processStart(running.pid());
        return {{"pid", running.pid()}, {"sessionId", id}, {"cwd", "/home/someone/src/pelorin.d"},
            {"startedAt", 1}, {"procStart", std::to_string(start ? start->ticks : 0)}, {"version", "9.9.9"},
            {"kind", "interactive"}, {"entrypoint", "cli"}, {"status", status}, {"statusUpdatedAt", nowMs()}};
    }

    std::filesystem::path stateFile(int pid) const
    {
        return root / "sessions" / (std::to_string(pid) + ".json");
    }
    void write(const json& state) const { lab::write(stateFile(state["pid"].get<int>()), state.dump()); }
    void writeStatus(const std::string& status) const { write(stateOf(*process, status)); }

    void addToTranscript(const json& record, const std::string& id = someID,
        const std::string& project = "-home-someone-src-pelorin-d") const
    {
        const auto directory = root / "projects" / project;
        std::filesystem::create_directories(directory);
        std::ofstream(directory / (id + ".jsonl"), std::ios::app) << record.dump() << '\n';
    }

    void hook(json input)
    {
        input["session_id"] = input.value("session_id", someID);
        input["cwd"] = "/home/someone/src/site";
        std::istringstream stream(input.dump());
        const auto request = AgentCommands::eventRequest(stream);
        ASSERT_TRUE(request);
        const auto report = ClaudeReport::parse(json::parse(*request)["event"].get<std::string>());
        ASSERT_TRUE(report);
        monitor->note(*report);
    }

    // Of the only task; "" when there is none.
    std::string phase()
    {
        queues.advance(1s);
        const auto tasks = monitor->activity().tasks;
        EXPECT_LE(tasks.size(), 1U);
        return tasks.empty() ? "" : nameOf(tasks[0].phase);
    }
    AgentTask task()
    {
        queues.advance(1s);
        const auto tasks = monitor->activity().tasks;
        EXPECT_EQ(tasks.size(), 1U);
        return tasks.empty() ? AgentTask{} : tasks[0];
    }
};

TEST_F(ClaudeMonitorTest, tellsWhatTheStateFilesTell)
{
    begin();
    EXPECT_EQ(phase(), "") << "nothing is installed yet";
    auto state = stateOf(*process, "waiting");
    state["brandNew"] = {{"a", {1, 2, 3}}};
    state["waitingFor"] = "permission to use\nBash";
    write(state);
    EXPECT_EQ(task().detail, "permission to use Bash");
    EXPECT_EQ(task().since, LooseJSON::date(state, "statusUpdatedAt", 1ms));
    const std::pair<const char*, const char*> statuses[]
        = {{"shell", "running"}, {"idle", "idle"}, {"busy", "running"}};
    for (const auto& [status, expected] : statuses) {
        writeStatus(status);
        EXPECT_EQ(phase(), expected);
    }
    std::filesystem::remove(stateFile(process->pid()));
    EXPECT_EQ(phase(), "");
}

TEST_F(ClaudeMonitorTest, isNotShakenByWhatItDoesNotKnow)
{
    writeStatus("busy");
    begin();
    EXPECT_EQ(phase(), "running");
    const auto file = stateFile(process->pid());
    const std::string whole = stateOf(*process, "idle").dump();
    for (std::size_t cut = 0; cut < whole.size(); cut += 7) {
        lab::write(file, whole.substr(0, cut));
        ASSERT_EQ(phase(), "running") << "half-written, " << cut;
    }
    for (const char* text : {"null", "[]", "{}", R"({"pid": "7", "sessionId": []})", "\xFF\xFE"}) {
        lab::write(file, text);
        EXPECT_EQ(phase(), "running") << text;
    }
    lab::write(file, whole + std::string(1 << 20, ' '));
    EXPECT_EQ(phase(), "running") << "too long to be one";

    for (int i = 0; i < 5; ++i) {
        writeStatus("pondering");
        EXPECT_EQ(phase(), "idle");
    }
    EXPECT_EQ(std::ranges::count_if(
                  log.lines, [](const auto& line) { return line.find("pondering") != line.npos; }),
        1);
    auto other = stateOf(*process, "busy", "../../etc");
    write(other);
    EXPECT_EQ(phase(), "idle") << "no identifier for a file's name";
}

TEST_F(ClaudeMonitorTest, leavesOutWhatNobodyLooksAtAndTheDead)
{
    const struct {
        const char* key;
        json value;
        bool isShown;
    } rows[] = {{"kind", "bg", true}, {"kind", "daemon", false}, {"kind", "daemon-worker", false},
        {"entrypoint", "sdk-py", false}, {"entrypoint", nullptr, true}, {"procStart", "12", false},
        {"procStart", 12, false}, {"procStart", nullptr, false},
        {"procStart", "Mon Nov 23 10:00:00 2026", false}, {"pid", 4'000'000, false}};
    for (const auto& [key, value, isShown] : rows) {
        auto state = stateOf(*process, "busy");
        state[key] = value; // by its startedAt alone, the process is another one, begun much later
        write(state);
        begin();
        EXPECT_EQ(phase(), isShown ? "running" : "") << key << " " << value;
        std::filesystem::remove_all(root);
    }
    auto state = stateOf(*process, "busy");
    state.erase("procStart");
    state["startedAt"] = static_cast<double>(std::chrono::system_clock::now().time_since_epoch() / 1ms);
    write(state);
    begin();
    EXPECT_EQ(phase(), "running") << "begun with its session";
}

TEST_F(ClaudeMonitorTest, believesHooksAndStateFilesAsTheyCome)
{
    begin();
    hook({{"hook_event_name", "SessionStart"}});
    EXPECT_EQ(task().project, "site") << "without any state file";
    const struct {
        json input;
        const char* expected;
        std::optional<std::string> detail;
    } rows[] = {
        {{{"hook_event_name", "UserPromptSubmit"}, {"prompt", "secret"}}, "running", {}},
        {{{"hook_event_name", "PreToolUse"}, {"tool_name", "Bash"}, {"tool_input", {{"command", "secret"}}}},
            "running", "Bash"},
        {{{"hook_event_name", "PermissionRequest"}, {"tool_name", "Bash"}}, "waiting", "Bash"},
        {{{"hook_event_name", "PostToolUse"}, {"tool_name", "Bash"}}, "running", "Bash"},
        {{{"hook_event_name", "Notification"}, {"notification_type", "auth_success"}}, "running", "Bash"},
        {{{"hook_event_name", "Notification"}, {"notification_type", "permission_prompt"}}, "waiting", {}},
        {{{"hook_event_name", "SubagentStop"}}, "waiting", {}},
        {{{"hook_event_name", "PreToolUse"}, {"tool_name", "AskUserQuestion"}}, "waiting", "AskUserQuestion"},
        {{{"hook_event_name", "BrandNewEvent"}}, "waiting", "AskUserQuestion"},
        {{{"hook_event_name", "Stop"}}, "idle", {}},
        {{{"hook_event_name", "Notification"}, {"notification_type", "idle_prompt"}}, "idle", {}},
        {{{"hook_event_name", "Notification"}, {"message", "needs your permission to use Bash"}}, "waiting",
            {}},
    };
    for (const auto& [input, expected, detail] : rows) {
        hook(input);
        EXPECT_EQ(phase(), expected) << input;
        EXPECT_EQ(task().detail, detail) << input;
    }
    EXPECT_THAT(log.lines, testing::Contains(HasSubstr("BrandNewEvent")));

    writeStatus("busy"); // later than the last hook
    EXPECT_EQ(phase(), "running");
    hook({{"hook_event_name", "Stop"}});
    EXPECT_EQ(phase(), "idle") << "and later again";
    hook({{"hook_event_name", "SessionEnd"}});
    EXPECT_EQ(phase(), "running") << "by the state file, as long as there is one";
}

TEST_F(ClaudeMonitorTest, forgetsSessionsThatOnlyHooksToldOf)
{
    begin();
    hook({{"hook_event_name", "Stop"}});
    hook({{"hook_event_name", "PreToolUse"}, {"session_id", otherID}});
    hook({{"hook_event_name", "SessionEnd"}, {"session_id", otherID}});
    EXPECT_EQ(phase(), "idle");
    queues.advance(11h);
    EXPECT_EQ(phase(), "idle");
    queues.advance(1h);
    EXPECT_EQ(phase(), "");
    for (int i = 0; i < 1000; ++i)
        hook({{"hook_event_name", "Stop"}, {"session_id", "session-" + std::to_string(i)}});
    EXPECT_EQ(monitor->activity().tasks.size(), 256U) << "whoever makes them up";
}

TEST_F(ClaudeMonitorTest, showsTheLimitsThatTheStatusLineTellsUntilTheyAreAnew)
{
    begin();
    EXPECT_FALSE(monitor->activity().usage);
    const double now = nowMs() / 1000;
    hook({{"rate_limits",
        {{"five_hour", {{"used_percentage", 23.5}, {"resets_at", now + 3600}}},
            {"seven_day", {{"used_percentage", 41}, {"resets_at", now + 86400}}}}}});
    hook({{"rate_limits",
        {{"five_hour", {{"used_percentage", 25}, {"resets_at", now + 3600}}},
            {"seven_day", {{"used_percentage", "much"}}}, {"new", 3}}}});
    EXPECT_TRUE(monitor->activity().tasks.empty()) << "a status line is no session";
    const auto usage = monitor->activity().usage;
    ASSERT_TRUE(usage && usage->session && usage->weekly);
    EXPECT_EQ(usage->session->percent, 25);
    EXPECT_EQ(usage->weekly->percent, 41);
    queues.advance(1h);
    EXPECT_EQ(monitor->activity().usage, (AgentUsage{std::nullopt, usage->weekly}));
    queues.advance(24h);
    EXPECT_FALSE(monitor->activity().usage);
}

TEST_F(ClaudeMonitorTest, takesTheTitleFromTheTranscriptWhereverThatIs)
{
    addToTranscript({{"type", "user"}, {"isMeta", true}, {"message", {{"content", "meta"}}}});
    addToTranscript({{"type", "user"}, {"message", {{"content", "<command-name>/clear</command-name>"}}}});
    addToTranscript({{"type", "user"},
        {"message", {{"content", json::array({{{"type", "tool_result"}, {"content", "result"}}})}}}});
    writeStatus("busy");
    begin();
    EXPECT_EQ(task().title, "pelorin.d") << "nothing better is known";
    const auto expectTitle = [&](const json& record, const char* expected) {
        addToTranscript(record);
        writeStatus("busy");
        EXPECT_EQ(task().title, expected) << record;
    };
    expectTitle({{"type", "user"}, {"message", {{"content", " \nfix the\nbug"}}}}, "fix the bug");
    expectTitle({{"type", "user"}, {"message", {{"content", "and another"}}}}, "fix the bug");
    expectTitle({{"type", "summary"}, {"summary", "修一个错误"}}, "修一个错误");
    expectTitle({{"type", "ai-title"}, {"aiTitle", "Fixing a bug"}}, "Fixing a bug");
    expectTitle({{"type", "ai-title"}, {"aiTitle", 7}}, "Fixing a bug");
    expectTitle({{"type", "ai-title"}, {"aiTitle", "Fixing two bugs"}}, "Fixing two bugs");
    expectTitle({{"type", "custom-title"}, {"customTitle", "mine"}}, "mine");
    expectTitle({{"type", "ai-title"}, {"aiTitle", "Fixing three bugs"}}, "mine");

    write(stateOf(*process, "busy", otherID));
    addToTranscript({{"type", "ai-title"}, {"aiTitle", "elsewhere"}}, otherID, "-some-other-folder");
    write(stateOf(*process, "idle", otherID));
    EXPECT_EQ(task().title, "elsewhere");
}

TEST_F(ClaudeMonitorTest, survivesBrokenFolders)
{
    addToTranscript({{"type", "ai-title"}, {"aiTitle", "of before"}});
    writeStatus("busy");
    begin();
    EXPECT_EQ(task().title, "of before");
    const auto transcript
        = root / "projects" / "-home-someone-src-pelorin-d" / (std::string(someID) + ".jsonl");
    std::filesystem::remove(transcript);
    std::filesystem::create_symlink(transcript, transcript);
    writeStatus("busy");
    EXPECT_EQ(task().title, "of before") << "as last known";

    std::filesystem::remove_all(root);
    EXPECT_EQ(phase(), "");
    std::filesystem::create_directory_symlink(root, root);
    EXPECT_EQ(phase(), "");
    std::filesystem::remove(root);
    writeStatus("busy");
    EXPECT_EQ(phase(), "running") << "a new installation";
    std::filesystem::remove(stateFile(process->pid()));
    std::filesystem::create_symlink("/dev/zero", stateFile(process->pid()));
    std::filesystem::create_directory(root / "sessions" / "folder.json");
    EXPECT_EQ(phase(), "running") << "nothing to be read says nothing";
}

TEST_F(ClaudeMonitorTest, mayGoAtAnyMoment)
{
    writeStatus("busy");
    begin();
    monitor->onChange = [this] { monitor.reset(); };
    writeStatus("idle");
    queues.advance(1s);
    EXPECT_FALSE(monitor);
    begin();
    monitor->onChange = [this] { monitor.reset(); };
    hook({{"hook_event_name", "Stop"}});
    EXPECT_FALSE(monitor);
}

TEST(ClaudeReport, carriesNothingBeyondWhatTheDeckGoesBy)
{
    std::istringstream input(json{{"session_id", someID}, {"hook_event_name", "PreToolUse"},
        {"transcript_path", "/home/someone/.claude/projects/x.jsonl"}, {"cwd", "/home/someone/secret/site"},
        {"prompt", "secret"}, {"tool_name", std::string(5000, 'T')},
        {"tool_input", {{"command", std::string(1 << 20, 's')}}}, {"tool_response", "secret"}}
            .dump());
    const auto request = AgentCommands::eventRequest(input);
    ASSERT_TRUE(request);
    EXPECT_LT(request->size(), 2000U) << "of the 4096 that the control socket takes";
    EXPECT_THAT(*request, testing::Not(testing::AnyOf(HasSubstr("secret"), HasSubstr("ssss"))));
    for (const char* text : {"", "nonsense", "{}", R"({"session_id": "x"})",
             R"({"session_id": "../x", "hook_event_name": "Stop"})", R"({"hook_event_name": "Stop"})"}) {
        std::istringstream useless(text);
        EXPECT_FALSE(AgentCommands::eventRequest(useless)) << text;
    }
}

TEST(AgentDeckKeeper, putsThoseWhoNeedTheUserFirstAndCountsThemAll)
{
    const DeckDate now(10h);
    const auto task = [&](const char* id, AgentPhase phase, std::chrono::minutes age) {
        return AgentTask{id, AgentKind::claude, "", "", phase, {}, now - age};
    };
    using enum AgentPhase;
    const auto state = AgentDeckKeeper::assemble(
        {{task("a", idle, 1min), task("b", running, 9min), task("c", waiting, 5min), task("d", idle, 3min)},
            AgentUsage{}},
        {{task("e", waiting, 2min), task("f", running, 1min), task("h", idle, 2min), task("g", idle, 2min)},
            {}},
        now);
    std::vector<std::string> ids;
    for (const auto& shown : state.tasks) ids.push_back(shown.id);
    EXPECT_THAT(ids, ElementsAre("e", "c", "f", "b", "a", "g"));
    EXPECT_THAT((std::array{state.running, state.waiting, state.idle}), ElementsAre(2, 2, 4));
    EXPECT_TRUE(state.claude && !state.codex);
    EXPECT_EQ(state.updatedAt, now);
}

} // namespace
} // namespace pelorin
