#pragma once

#include "Tests/Lab/BuildFolder.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Tailnet.h"
#include "Tests/Lab/XServer.h"

#include <cstdint>
#include <map>

namespace pelorin::lab {

std::uint16_t freePort(); // on 127.0.0.1, free a moment ago

// The real host program with a support folder of its own, in test mode on a free port, or in a tailnet.
class HostProgram {
public:
    // settings: JSON members added to host.json, such as R"("idleTimeoutMinutes": 0.02)".
    explicit HostProgram(const std::string& display, const std::string& settings = {},
        std::vector<std::string> environment = {}); // "NAME=value" added to ours
    HostProgram(const Tailnet& tailnet, const std::string& display, const std::string& settings = {});

    std::uint16_t port() const { return listenPort; }
    std::string address() const { return "127.0.0.1:" + std::to_string(listenPort); }
    std::filesystem::path support() const { return folder.path() / "support"; }
    Process& process() { return *running; }
    void startAgain(); // in test mode, with the same folders; the last one has ended

    std::string control(
        std::vector<std::string> arguments) const; // standard output of pelorin-host ARGUMENTS
    bool waitUntilListening() const;
    std::string log() const { return contentOf(folder.path() / "host.log"); }
    std::string connectionLog() const { return contentOf(folder.path() / "connections.log"); }
    bool waitForConnectionLog(const std::string& text) const;

private:
    void writeSettings(const std::string& settings) const;
    std::vector<std::string> command() const;

    TemporaryFolder folder;
    std::uint16_t listenPort;
    std::vector<std::string> environment;
    std::unique_ptr<Process> running;
};

// One run of the real viewer program, headless.
class ViewerProgram {
public:
    ViewerProgram(const HostProgram& host, const std::string& script, std::vector<std::string> more = {});

    Process& process() { return *running; }
    int waitForExit(int timeoutMs = 60'000) { return running->waitForExit(timeoutMs); }
    std::string output() const { return contentOf(folder.path() / "output.log"); } // both streams
    std::filesystem::path screenshot() const { return folder.path() / "screenshot.png"; }

private:
    TemporaryFolder folder;
    std::unique_ptr<Process> running;
};

} // namespace pelorin::lab
