#include "PelorinHost/Linux/LinuxSystem.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Lab/Programs.h"
#include "Tests/Lab/SystemCalls.h"
#include "Tests/Lab/Wait.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Outcome = Result<ToolExit, ToolFailure>;

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

bool hasChildren()
{
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool isAlive(const std::string& pid)
{
    const auto state = lab::contentOf("/proc/" + pid + "/stat");
    return !state.empty() && state.find(") Z") == state.npos;
}

// Real processes under a clock that the test drives.
class LinuxTool : public testing::Test {
protected:
    // One command of the shell, from its start to its end.
    Outcome run(const std::string& script, std::vector<std::string> more = {})
    {
        start(script, std::move(more));
        EXPECT_TRUE(runsUntil([&] { return outcome.has_value(); })) << script;
        return outcome ? *outcome : std::unexpected(ToolFailure{});
    }

    void start(const std::string& script, std::vector<std::string> more = {})
    {
        ToolRun tool{"/bin/sh", {"-c", script, "sh"}, {"PELORIN_TEST=added", "LANG=changed"}, 15s};
        tool.arguments.insert(tool.arguments.end(), more.begin(), more.end());
        tool.outputLimit = 100'000;
        outcome.reset();
        running = system.runTool(queue, std::move(tool), [this](Outcome how) {
            outcome = std::move(how);
            running = {};
        });
        EXPECT_FALSE(outcome);
    }

    bool runsUntil(const std::function<bool()>& condition)
    {
        return lab::eventually([&] {
            queues.advance(1ms); // a real millisecond or more each
            return condition();
        });
    }

    // Two processes that would go on for good, as their ids.
    std::pair<std::string, std::string> startTwoSleepers(const std::string& atTheEnd)
    {
        const auto note = folder.path() / "pids";
        start("tail -f /dev/null & echo $$ $! >" + note.string() + ".new; mv " + note.string() + ".new "
            + note.string() + "; " + atTheEnd);
        EXPECT_TRUE(lab::eventually([&] { return std::filesystem::exists(note); }));
        const auto text = lab::contentOf(note);
        return {text.substr(0, text.find(' ')),
            text.substr(text.find(' ') + 1, text.find('\n') - text.find(' ') - 1)};
    }

    ManualQueues queues;
    QueueRef queue = queues.makeQueue("test");
    LinuxSystem system;
    lab::TemporaryFolder folder;
    std::optional<Outcome> outcome;
    Subscription running;
};

TEST_F(LinuxTool, bringsBackWhatItWroteAndHowItEnded)
{
    const auto exit = run("printf %s,%s \"$1\" \"$2\"; echo oops >&2; cat; exit 3", {"a b;$HOME", ""});
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->status, 3);
    EXPECT_EQ(exit->output, "a b;$HOME,");
    EXPECT_EQ(exit->errors, "oops\n");

    EXPECT_EQ(run("echo $PELORIN_TEST $LANG; test -n \"$PATH\"")->output, "added changed\n");
    EXPECT_EQ(run("kill -KILL $$")->status, 128 + SIGKILL);
    EXPECT_EQ(run("exec 1>&- 2>&-; exit 7")->status, 7); // closes both long before its end
}

TEST_F(LinuxTool, inheritsNoneOfOurDescriptorsAndSignals)
{
    const int stray = dup2(0, 77); // as from a library that knows no CLOEXEC
    sigset_t blocked, before;
    sigfillset(&blocked);
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    const auto pipeBefore = std::signal(SIGPIPE, SIG_IGN);
    const auto exit = run("ls -l /proc/$$/fd");
    const auto byPipe = run("kill -PIPE $$"), byTerm = run("kill -TERM $$");
    std::signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(stray);

    ASSERT_TRUE(exit);
    EXPECT_NE(exit->output.find(" 0 -> /dev/null"), std::string::npos) << exit->output;
    EXPECT_EQ(std::ranges::count(exit->output, '>'), 3) << exit->output;
    EXPECT_EQ(byPipe->status, 128 + SIGPIPE);
    EXPECT_EQ(byTerm->status, 128 + SIGTERM);
}

TEST_F(LinuxTool, isKilledWithItsChildrenAtTheDeadline)
{
    for (const std::string atTheEnd :
        {"wait", "trap '' TERM INT HUP; wait; tail -f /dev/null", "kill -STOP $$"}) {
        const auto [tool, child] = startTwoSleepers(atTheEnd);
        queues.advance(14'900ms);
        EXPECT_FALSE(outcome);
        EXPECT_TRUE(isAlive(tool) && isAlive(child));
        queues.advance(200ms);
        ASSERT_TRUE(outcome) << atTheEnd;
        EXPECT_EQ(outcome->error().kind, ToolFailure::Kind::timedOut);
        EXPECT_TRUE(runsUntil([&] { return !isAlive(tool) && !isAlive(child) && !hasChildren(); }))
            << atTheEnd;
        std::filesystem::remove(folder.path() / "pids");
    }
}

TEST_F(LinuxTool, isStoppedWhenItWritesTooMuch)
{
    const auto full = run("head -c 100000 /dev/zero; head -c 100000 /dev/zero >&2");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->output.size(), 100'000u);
    EXPECT_EQ(full->errors.size(), 100'000u);

    for (const std::string script : {"yes", "yes >&2", "head -c 100001 /dev/zero"}) {
        const auto flood = run(script);
        ASSERT_FALSE(flood) << script;
        EXPECT_EQ(flood.error().kind, ToolFailure::Kind::tooMuchOutput);
        EXPECT_TRUE(runsUntil([] { return !hasChildren(); }));
    }
}

TEST_F(LinuxTool, isNotHeldUpByWhatItLeavesBehind)
{
    const auto exit = run("tail -f /dev/null & echo $!");
    ASSERT_TRUE(exit);
    const auto left = exit->output.substr(0, exit->output.size() - 1);
    EXPECT_TRUE(isAlive(left)); // it was started on purpose, and is not ours to end
    kill(std::stoi(left), SIGKILL);
}

TEST_F(LinuxTool, thatCannotStartSaysSoLater)
{
    const auto textFile = folder.path() / "text";
    lab::write(textFile, "echo hello");
    for (const std::string program : {"/nonexistent/tool", "/etc", textFile.c_str()}) {
        std::optional<Outcome> how;
        const auto started
            = system.runTool(queue, {program, {}, {}, 15s}, [&](Outcome ended) { how = std::move(ended); });
        EXPECT_FALSE(how);
        queues.runReady();
        ASSERT_TRUE(how && !*how) << program;
        EXPECT_EQ(how->error().kind, ToolFailure::Kind::notStarted);
        EXPECT_TRUE(how->error().description.starts_with(program + ": ")) << how->error().description;
        EXPECT_FALSE(system.isExecutableFile(program));
    }
    EXPECT_TRUE(system.isExecutableFile("/bin/sh"));
}

TEST_F(LinuxTool, leavesNothingBehindWheneverItsOwnerGoes)
{
    const auto before = openDescriptors();
    bool isUnderWay = true;
    int calls = 0;
    for (; isUnderWay; ++calls) { // each moment of its life
        SCOPED_TRACE(calls);
        start("kill -STOP $$; head -c 1000 /dev/zero & wait; exec echo done");
        siginfo_t stopped{};
        ASSERT_EQ(waitid(P_ALL, 0, &stopped, WSTOPPED), 0);
        const pid_t shell = stopped.si_pid;
        ASSERT_EQ(ptrace(PTRACE_ATTACH, shell, nullptr, nullptr), 0);
        ASSERT_EQ(waitpid(shell, nullptr, 0), shell);
        kill(shell, SIGCONT);
        isUnderWay = lab::advanceBySystemCalls(shell, calls);
        if (calls % 2 == 0) queues.runReady(); // with what it wrote read, or not
        running = {};
        ASSERT_TRUE(runsUntil([] { return !hasChildren(); }));
        ASSERT_EQ(openDescriptors(), before);
    }
    EXPECT_GT(calls, 20) << "a life of a shell and of a program is longer";
}

} // namespace
} // namespace pelorin
