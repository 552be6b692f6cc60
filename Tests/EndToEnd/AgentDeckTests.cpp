#include "PelorinCore/AgentDeck/AgentDeckState.h"
#include "PelorinHost/Platform/ProcessWatch.h"
#include "PelorinNet/OwnedDescriptor.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/Wait.h"

#include <csignal>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

// The deck of a running host, from files as the agents leave them to what a phone would be told.
namespace pelorin {
namespace {

using namespace std::chrono_literals;
using lab::eventually;
using nlohmann::json;
using testing::HasSubstr;

constexpr const char* claudeID = "0b7e3c52-91a4-4f0e-8a35-5d1f7c2e9b10";
constexpr const char* codexID = "0199aa11-2222-7333-8444-555566667777";

struct AgentDeckTest : testing::Test {
    lab::XServer server;
    lab::TemporaryFolder folder;
    std::filesystem::path claude = folder.path() / "claude";
    std::filesystem::path codex = folder.path() / "codex";
    std::unique_ptr<lab::Process> agent = lab::Process::start({"sleep", "1000"});
    lab::HostProgram host{
        server.display(), {}, {"CLAUDE_CONFIG_DIR=" + claude.string(), "CODEX_HOME=" + codex.string()}};

    AgentDeckState deck() const
    {
        return AgentDeckState::decode(host.control({"agents", "--json"})).value_or(AgentDeckState{});
    }
    // "phase detail" of that agent's only task.
    std::string phaseOf(AgentKind kind) const
    {
        for (const auto& task : deck().tasks)
            if (task.agent == kind) return nameOf(task.phase) + (" " + task.detail.value_or("-"));
        return "none";
    }
    bool becomes(AgentKind kind, const std::string& expected) const
    {
        return eventually([&] { return phaseOf(kind) == expected; });
    }

    void claudeIs(const char* status) const
    {
        const json state{{"pid", agent->pid()}, {"sessionId", claudeID}, {"cwd", "/home/someone/site"},
            {"procStart", std::to_string(processStart(agent->pid()).value_or(ProcessStart{}).ticks)},
            {"kind", "interactive"}, {"entrypoint", "cli"}, {"name", "修一个错误"}, {"status", status},
            {"statusUpdatedAt", std::chrono::system_clock::now().time_since_epoch() / 1ms}};
        lab::write(claude / "sessions" / (std::to_string(agent->pid()) + ".json"), state.dump());
    }
    void codexSays(const json& event) const
    {
        const auto now = fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
        const auto file = codex / "sessions" / "2026" / "01" / "01"
            / (std::string("rollout-2026-01-01T00-00-00-") + codexID + ".jsonl");
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::app) << json{{"timestamp", fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", now)},
            {"type", "event_msg"},
            {"payload", event}}.dump() << '\n';
    }
    // What the agent's user set up: the program's exit code, and what it printed.
    std::pair<int, std::string> hook(const std::string& input) const
    {
        lab::write(folder.path() / "input", input);
        const OwnedDescriptor standardInput(::open((folder.path() / "input").c_str(), O_RDONLY | O_CLOEXEC));
        const auto output = (folder.path() / "output").string();
        const auto program = lab::Process::start(
            {lab::programPath("pelorin-host"), "agent-event", "--support-dir", host.support().string()}, {},
            output, standardInput.get());
        const int code = program->waitForExit(20'000);
        return {code, lab::contentOf(output)};
    }
};

TEST_F(AgentDeckTest, followsBothAgentsFromTheirFirstFilesToTheirEnd)
{
    ASSERT_TRUE(host.waitUntilListening());
    EXPECT_EQ(host.control({"agents"}), "0 waiting, 0 running, 0 idle\n");
    claudeIs("busy");
    codexSays({{"type", "task_started"}});
    EXPECT_TRUE(becomes(AgentKind::claude, "running -") && becomes(AgentKind::codex, "running -"))
        << host.log();

    const std::pair<int, std::string> silence{0, ""};
    EXPECT_EQ(hook(json{{"session_id", claudeID}, {"hook_event_name", "PermissionRequest"},
                  {"tool_name", "Bash"}, {"tool_input", {{"command", std::string(1 << 20, 's')}}}}
                      .dump()),
        silence);
    EXPECT_TRUE(becomes(AgentKind::claude, "waiting Bash"));
    EXPECT_EQ(
        hook(json{{"session_id", claudeID}, {"rate_limits", {{"five_hour", {{"used_percentage", 23.5}}}}}}
                .dump()),
        silence);
    EXPECT_EQ(hook("nonsense"), silence);
    codexSays({{"type", "token_count"},
        {"rate_limits", {{"secondary", {{"used_percent", 41}, {"window_minutes", 10080}}}}}});
    codexSays({{"type", "task_complete"}});
    EXPECT_TRUE(becomes(AgentKind::codex, "idle -"));

    const AgentDeckState state = deck();
    EXPECT_EQ(state.waiting + 10 * state.idle + 100 * state.running, 11);
    EXPECT_EQ(state.tasks.at(0).agent, AgentKind::claude) << "who waits comes first";
    EXPECT_EQ(state.tasks.at(0).title + " in " + state.tasks.at(0).project, "修一个错误 in site");
    EXPECT_EQ(state.claude, (AgentUsage{UsageWindow{23.5, {}}, {}}));
    EXPECT_EQ(state.codex, (AgentUsage{{}, UsageWindow{41, {}}}));
    EXPECT_THAT(host.control({"agents"}),
        testing::AllOf(HasSubstr("1 waiting, 0 running, 1 idle\n"), HasSubstr("site: 修一个错误 · Bash\n"),
            HasSubstr("used of codex · week 41 %\n")));

    agent->signal(SIGKILL);
    EXPECT_TRUE(becomes(AgentKind::claude, "none"));
    host.control({"quit"});
    EXPECT_EQ(host.process().waitForExit(10'000), 0);
    EXPECT_EQ(hook(json{{"session_id", claudeID}, {"hook_event_name", "Stop"}}.dump()), silence)
        << "without a host";
}

} // namespace
} // namespace pelorin
