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
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace pelorin::lab {
namespace {

constexpr int startTimeoutMs = 20'000; // a loaded machine under a sanitizer

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
    return outputOf(std::move(arguments), {"DISPLAY=" + displayName});
}

std::unique_ptr<Process> XServer::launch(std::vector<std::string> arguments) const
{
    return Process::start(std::move(arguments), {"DISPLAY=" + displayName});
}

} // namespace pelorin::lab
