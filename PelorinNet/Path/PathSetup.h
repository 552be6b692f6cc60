#pragma once

#include "PelorinNet/Path/Candidate.h"
#include "PelorinNet/Path/DatagramProxy.h"
#include "PelorinNet/Path/TurnClient.h"
#include "PelorinNet/Rendezvous/SignalPipe.h"

namespace pelorin {

// The servers that help two ends find each other, by name or address.
struct PathServers {
    struct Server {
        std::string host;
        std::uint16_t port = 3478;
        bool operator==(const Server&) const = default;
    };
    std::vector<Server> stun; // the first answers "how do you see me"
    std::vector<Server> turn; // the first is the primary relay, the next the backup; one alone serves as both
};

// What one end tells the other about itself.
struct PathDescription {
    std::string ufrag;
    std::string password;
    std::vector<Candidate> candidates;
};

// Finds a path between the two ends of a remote session and keeps one while the session lives: direct if the
// networks allow it, else over relays; moved when one dies, and to a direct one when that turns up. QUIC
// talks to localPort and never learns. Both ends run the same steps. Path queue; owned by the session.
class PathSetup {
public:
    // For tests in the field.
    struct Switches {
        bool forceTurn = false; // PELORIN_FORCE_TURN: no direct path, and no address of ours is told
        std::optional<std::chrono::seconds>
            breakAfter; // PELORIN_TEST_BREAK_AFTER: then the relay in use goes deaf
        static Switches fromEnvironment();
    };
    // The addresses behind a server's name, on the queue that asked; empty when there is none.
    using Lookup = std::function<void(
        const PathServers::Server&, QueueRef, std::function<void(std::vector<SocketAddress>)>)>;
    using Completion = std::function<void(Result<std::string, NetError>)>;

    PathSetup(QueueRef pathQueue, PathServers servers, Lookup lookup, Switches switches);
    ~PathSetup(); // closes the path and gives relays back

    // Opens the sockets and begins to ask for our reflexive address.
    Result<void, NetError> open();
    // Calls done when that is known or refused, or after atMost.
    void gather(Duration atMost, Task done);
    // What the peer must be told before start; what turns up later goes through the pipe.
    PathDescription local();
    // Looks for a path to remote, with relays if there are credentials. completion gets the path's label
    // within 15 s, or why there is none.
    void start(
        PathDescription remote, std::optional<TurnCredentials> turn, SignalPipe pipe, Completion completion);
    std::function<void(const std::string& label)> onPathChange; // after completion

    // Where QUIC sends to, on 127.0.0.1. A listener must be named before its peer's first datagram can reach
    // it; a connecting endpoint is learned from its first datagram.
    std::uint16_t localPort() const;
    void setQuicEndpoint(const SocketAddress& listener);

    // The machine's interfaces or routes have changed: every path is suspect, and others may have become
    // possible.
    void networkChanged();

    std::optional<std::string> label() const; // "direct 203.0.113.7:51820", "relay turn-1.example"
    std::string statistics() const; // one line for the log

private:
    struct State;
    std::unique_ptr<State> state;
};

} // namespace pelorin
