#pragma once

#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

#include <cstdint>

namespace pelorin::lab {

// A real broker, nats-server, on a port of its own on loopback, which it keeps when it is started again.
class NatsServer {
public:
    explicit NatsServer(std::vector<std::string> moreOptions = {}); // returns once it listens

    // "nats://127.0.0.1:4222"; user: "name:password".
    std::string url(const std::string& user = {}, const char* scheme = "nats") const;
    Process& process() const { return *running; }
    void kill(); // at once, as a machine that fails
    void startAgain();
    std::string log() const { return contentOf(folder.path() / "nats.log"); }

private:
    bool start();

    TemporaryFolder folder;
    const std::vector<std::string> more;
    std::uint16_t port = 0;
    std::unique_ptr<Process> running;
};

} // namespace pelorin::lab
