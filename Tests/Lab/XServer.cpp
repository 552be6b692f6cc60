#include "Tests/Lab/XServer.h"

#include "PelorinCore/Result.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace pelorin::lab {
namespace {

constexpr int startTimeoutMs = 20'000; // a loaded machine under a sanitizer

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

// Servers that choose their number start under the shared lock. A killed server's number changes hands under
// the exclusive one, so that no other test's server finds it free in between.
class NumberLock {
public:
    explicit NumberLock(int kind)
        : file(open("/tmp/.pelorin-lab-displays", O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        require(flock(file, kind) == 0, "flock");
    }
    ~NumberLock() { close(file); }
    NumberLock(const NumberLock&) = delete;
    NumberLock& operator=(const NumberLock&) = delete;

private:
    int file;
};

// The address that a server looks for first when it chooses a number; it refuses while nobody listens there.
int holdAddress(const std::string& displayNumber)
{
    const auto name = "/tmp/.X11-unix/X" + displayNumber;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path + 1); // the zero before it makes it an abstract name
    const int held = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    require(
        bind(held, reinterpret_cast<const sockaddr*>(&address), length) == 0, "a display number was lost");
    return held;
}

// Starts a program with descriptors 1 and 2 as given; keptFd stays open in it under its own number.
int spawn(std::vector<std::string> arguments, const std::vector<std::string>& environment, int output)
{
    auto allEnvironment = environmentWith(environment);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
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

std::string readLine(int fd, int timeoutMs)
{
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return {};
        char c = 0;
        if (read(fd, &c, 1) != 1) return {};
        if (c == '\n') return line;
        line += c;
    }
}

} // namespace

std::unique_ptr<Process> Process::start(
    std::vector<std::string> arguments, std::vector<std::string> environment, const std::string& logFile)
{
    const int output = open(
        logFile.empty() ? "/dev/null" : logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int pid = spawn(std::move(arguments), environment, output);
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

XServer::XServer(Options newOptions) : options(std::move(newOptions))
{
    const NumberLock lock(LOCK_SH);
    begin(-1);
}

XServer::~XServer()
{
    process.reset();
    if (heldAddress >= 0) close(heldAddress);
    std::error_code ignored;
    if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
}

void XServer::begin(int displayNumber)
{
    int ready[2];
    require(pipe(ready) == 0, "pipe"); // stays open across exec: the server writes its display number there
    fcntl(ready[0], F_SETFD, FD_CLOEXEC);

    std::vector<std::string> arguments;
    if (options.isXorg) {
        char pattern[] = "/tmp/pelorin-xorg-XXXXXX";
        if (folder.empty()) folder = mkdtemp(pattern);
        std::ofstream configuration(folder + "/xorg.conf");
        configuration
            << "Section \"Device\"\n Identifier \"card\"\n Driver \"dummy\"\n VideoRam 512000\nEndSection\n"
            << "Section \"Monitor\"\n Identifier \"monitor\"\n HorizSync 1-2000\n VertRefresh 1-240\n"
            << " Modeline \"start\" 100 " << options.widthPx << ' ' << options.widthPx + 8 << ' '
            << options.widthPx + 16 << ' ' << options.widthPx + 24 << ' ' << options.heightPx << ' '
            << options.heightPx + 2 << ' ' << options.heightPx + 4 << ' ' << options.heightPx + 6
            << "\nEndSection\n"
            << "Section \"Screen\"\n Identifier \"screen\"\n Device \"card\"\n Monitor \"monitor\"\n"
            << " DefaultDepth 24\n SubSection \"Display\"\n  Depth 24\n  Modes \"start\"\n  Virtual 8192 "
               "8192\n"
            << " EndSubSection\nEndSection\n"
            << "Section \"ServerFlags\"\n Option \"AutoAddDevices\" \"false\"\n Option \"DontVTSwitch\" "
               "\"true\"\n"
            << "EndSection\n";
        arguments = {"Xorg", "-noreset", "-novtswitch", "-sharevts", "-nolisten", "tcp", "-config",
            folder + "/xorg.conf", "-logfile", folder + "/xorg.log"};
    } else {
        arguments = {"Xvfb", "-noreset", "-nolisten", "tcp", "-screen", "0",
            std::to_string(options.widthPx) + "x" + std::to_string(options.heightPx) + "x24"};
    }
    if (displayNumber >= 0) arguments.insert(arguments.begin() + 1, ":" + std::to_string(displayNumber));
    arguments.insert(arguments.end(), options.extraArguments.begin(), options.extraArguments.end());
    arguments.insert(arguments.end(), {"-displayfd", std::to_string(ready[1])});

    process = Process::start(arguments, {}, folder.empty() ? std::string() : folder + "/output.log");
    close(ready[1]);
    const auto number = readLine(ready[0], startTimeoutMs);
    close(ready[0]);
    require(!number.empty(), "the X server of the lab did not start");
    displayName = ":" + number;
}

void XServer::kill()
{
    const NumberLock lock(LOCK_EX);
    process->signal(SIGKILL);
    process->waitForExit(10'000);
    heldAddress = holdAddress(displayName.substr(1));
}

void XServer::pause()
{
    process->signal(SIGSTOP);
}

void XServer::resume()
{
    process->signal(SIGCONT);
}

void XServer::restart()
{
    if (process->isRunning()) kill();
    const NumberLock lock(LOCK_EX);
    close(std::exchange(heldAddress, -1));
    begin(std::stoi(displayName.substr(1)));
}

std::string XServer::run(std::vector<std::string> arguments) const
{
    int output[2];
    require(pipe2(output, O_CLOEXEC) == 0, "pipe");
    const int pid = spawn(std::move(arguments), {"DISPLAY=" + displayName}, output[1]);
    close(output[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t n = 0; (n = read(output[0], chunk, sizeof chunk)) > 0;)
        text.append(chunk, static_cast<std::size_t>(n));
    close(output[0]);
    waitpid(pid, nullptr, 0);
    return text;
}

std::unique_ptr<Process> XServer::launch(std::vector<std::string> arguments) const
{
    return Process::start(std::move(arguments), {"DISPLAY=" + displayName});
}

} // namespace pelorin::lab
