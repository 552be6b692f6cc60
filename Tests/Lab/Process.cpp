#include "Tests/Lab/Process.h"

#include "PelorinCore/Result.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace pelorin::lab {
namespace {

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& additions)
{
    std::vector<std::string> all = additions;
    for (char** entry = environ; *entry; ++entry) {
        const std::string_view existing(*entry);
        const auto name = existing.substr(0, existing.find('=') + 1);
        bool isReplaced = false;
        for (const auto& a : additions) isReplaced |= std::string_view(a).starts_with(name);
        if (!isReplaced) all.emplace_back(existing);
    }
    return all;
}

// Starts a program with descriptors 1 and 2 as given, and 0 unless input is -1.
int spawn(
    std::vector<std::string> arguments, const std::vector<std::string>& environment, int input, int output)
{
    auto allEnvironment = environmentWith(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0)
        posix_spawn_file_actions_adddup2(&actions, input, 0);
    else
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, 1);
    posix_spawn_file_actions_adddup2(&actions, output, 2);
    int pid = -1;
    const int failure = posix_spawnp(&pid, arguments[0].c_str(), &actions, nullptr,
        pointers(arguments).data(), pointers(allEnvironment).data());
    posix_spawn_file_actions_destroy(&actions);
    require(failure == 0, ("the lab can't start " + arguments[0]).c_str());
    return pid;
}

} // namespace

std::string outputOf(std::vector<std::string> arguments, const std::vector<std::string>& environment)
{
    int output[2];
    require(pipe2(output, O_CLOEXEC) == 0, "pipe");
    const int pid = spawn(std::move(arguments), environment, -1, output[1]);
    close(output[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t n = 0; (n = read(output[0], chunk, sizeof chunk)) > 0;)
        text.append(chunk, static_cast<std::size_t>(n));
    close(output[0]);
    waitpid(pid, nullptr, 0);
    return text;
}

std::unique_ptr<Process> Process::start(std::vector<std::string> arguments,
    std::vector<std::string> environment, const std::string& logFile, int input)
{
    const int output = open(
        logFile.empty() ? "/dev/null" : logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int pid = spawn(std::move(arguments), environment, input, output);
    close(output);
    return std::unique_ptr<Process>(new Process(pid));
}

Process::~Process()
{
    if (isReaped) return;
    ::kill(processID, SIGTERM);
    if (waitForExit(2000) >= 0 || isReaped) return;
    ::kill(processID, SIGKILL);
    waitForExit(10'000);
}

bool Process::isRunning()
{
    return waitForExit(0) < 0 && !isReaped;
}

void Process::signal(int number)
{
    if (!isReaped) ::kill(processID, number);
}

int Process::waitForExit(int timeoutMs)
{
    if (isReaped) return exitCode;
    const int watched = static_cast<int>(syscall(SYS_pidfd_open, processID, 0));
    pollfd waiting{watched, POLLIN, 0};
    poll(&waiting, 1, timeoutMs);
    close(watched);
    int status = 0;
    if (waitpid(processID, &status, WNOHANG) != processID) return -1;
    isReaped = true;
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitCode;
}

long Process::residentKiB() const
{
    std::ifstream status("/proc/" + std::to_string(processID) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
    }
    return 0;
}

} // namespace pelorin::lab
