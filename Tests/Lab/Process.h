#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pelorin::lab {

// Runs a program to its end and returns its standard output and errors.
std::string outputOf(std::vector<std::string> arguments, const std::vector<std::string>& environment = {});

// A program of the lab, killed and reaped with the object.
class Process {
public:
    // Starts arguments[0], found in PATH. environment: "NAME=value" added to ours. Output goes to logFile, or
    // nowhere. input: a descriptor for its standard input, or none.
    static std::unique_ptr<Process> start(std::vector<std::string> arguments,
        std::vector<std::string> environment = {}, const std::string& logFile = {}, int input = -1);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    int pid() const { return processID; }
    bool isRunning();
    void signal(int number);
    int waitForExit(int timeoutMs); // the exit code, 128 + signal, or -1 when it still runs then
    long residentKiB() const; // memory it holds now

private:
    explicit Process(int newPid) : processID(newPid) {}
    int processID = -1;
    int exitCode = -1;
    bool isReaped = false;
};

} // namespace pelorin::lab
