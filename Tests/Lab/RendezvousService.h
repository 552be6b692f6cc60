#pragma once

#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

#include <cstdint>

namespace pelorin::lab {

// The real rendezvous service on one address.
class RendezvousService {
public:
    struct Options {
        std::string host = "127.0.0.1";
        std::uint16_t port = 0; // 0: a free one
        std::vector<std::string> relays = {}; // "turn:192.0.2.7:3478", of a TurnServer with its shared secret
        std::string certificate = {}; // PEM files; none: without TLS
        std::string key = {};
        std::string logLevel = "debug"; // what is less than info costs time that is measured
        std::vector<std::string> more = {}; // further options of pelorin-rendezvous
        std::vector<std::string> prefix = {}; // what runs it, such as nsenter with its arguments
    };

    RendezvousService() : RendezvousService(Options{}) {}
    explicit RendezvousService(const Options& options); // returns once it listens

    std::uint16_t port() const { return listenPort; }
    std::string url() const; // "http://127.0.0.1:7443", as in host.json
    Process& process() const { return *running; }
    std::string log() const { return contentOf(folder.path() / "rendezvous.log"); }

private:
    TemporaryFolder folder;
    std::string host;
    bool hasTLS = false;
    std::uint16_t listenPort = 0;
    std::unique_ptr<Process> running;
};

} // namespace pelorin::lab
