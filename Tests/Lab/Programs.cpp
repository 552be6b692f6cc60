#include "Tests/Lab/Programs.h"

#include "PelorinCore/Result.h"
#include "Tests/Lab/Wait.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pelorin::lab {

std::uint16_t freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    require(bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0
            && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0,
        "a free port");
    close(fd);
    return ntohs(address.sin_port);
}

HostProgram::HostProgram(
    const std::string& display, const std::string& settings, std::vector<std::string> newEnvironment)
    : listenPort(freePort()),
      environment(std::move(newEnvironment))
{
    // The agents of whoever runs the tests are none of theirs; of two words on one variable the first counts.
    const auto nowhere = (folder.path() / "none").string();
    environment.insert(environment.end(), {"CLAUDE_CONFIG_DIR=" + nowhere, "CODEX_HOME=" + nowhere});
    environment.push_back("DISPLAY=" + display);
    const std::string separator = settings.empty() ? "" : ", ";
    writeSettings("\"allowLoopbackForTesting\": true" + separator + settings);
    startAgain();
}

void HostProgram::startAgain()
{
    running = Process::start(command(), environment, (folder.path() / "host.log").string());
}

HostProgram::HostProgram(const Tailnet& tailnet, const std::string& display, const std::string& settings)
    : listenPort(7420)
{
    writeSettings(settings);
    running = Process::start(tailnet.inside(Tailnet::Side::host, command()), {"DISPLAY=" + display},
        (folder.path() / "host.log").string());
}

void HostProgram::writeSettings(const std::string& settings) const
{
    write(support() / "host.json",
        "{\"rendezvous\": false, \"port\": " + std::to_string(listenPort)
            + (settings.empty() ? "" : ", " + settings) + "}");
}

std::vector<std::string> HostProgram::command() const
{
    return {programPath("pelorin-host"), "--headless", "--support-dir", support().string(), "--log-dir",
        folder.path().string()};
}

std::string HostProgram::control(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.begin(), programPath("pelorin-host"));
    arguments.insert(arguments.end(), {"--support-dir", support().string()});
    const TemporaryFolder outputFolder;
    const auto output = outputFolder.path() / "output";
    Process::start(arguments, {}, output.string())->waitForExit(20'000);
    return contentOf(output);
}

bool HostProgram::waitUntilListening() const
{
    return eventually(
        [this] { return control({"status", "--json"}).find("\"127.0.0.1") != std::string::npos; });
}

bool HostProgram::waitForConnectionLog(const std::string& text) const
{
    return eventually([&] { return connectionLog().find(text) != std::string::npos; });
}

ViewerProgram::ViewerProgram(
    const HostProgram& host, const std::string& script, std::vector<std::string> more)
{
    const auto scriptFile = folder.path() / "input.script";
    write(scriptFile, script);
    std::vector<std::string> arguments{programPath("pelorin-viewer"), host.address(), "--headless",
        "--script", scriptFile.string(), "--screenshot", screenshot().string(), "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    running = Process::start(arguments, {}, (folder.path() / "output.log").string());
}

} // namespace pelorin::lab
