#pragma once

#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

namespace pelorin::lab {

// A real message bus of its own, with nobody on it yet.
class MessageBus {
public:
    MessageBus();

    std::string address() const { return "unix:path=" + (folder.path() / "bus").string(); }
    Process& process() { return *running; }

private:
    TemporaryFolder folder;
    std::unique_ptr<Process> running;
};

// A service on a bus, with one object of one interface.
class BusService {
public:
    BusService(const MessageBus& bus, const std::string& name, const std::string& path,
        const std::string& interface);

    // body: Python that runs at a call of the method, with self for the object and ret for what it returns.
    void addMethod(const std::string& method, const std::string& returns, const std::string& body,
        const std::string& takes = {});
    void addFlag(const std::string& property); // a boolean, false

    std::string calls() const { return contentOf(folder.path() / "calls"); } // one line each
    Process& process() { return *running; }

private:
    void tell(std::vector<std::string> request) const;

    TemporaryFolder folder;
    const std::string address, name, path, interface;
    std::unique_ptr<Process> running;
};

} // namespace pelorin::lab
