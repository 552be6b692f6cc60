#pragma once

#include "PelorinNet/Path/PathFilter.h"
#include "PelorinNet/Path/PathLinks.h"
#include "PelorinNet/Path/Puncher.h"
#include "PelorinNet/Path/Relay.h"
#include "PelorinNet/Path/StunBinder.h"
#include "PelorinNet/Rendezvous/SignalPipe.h"

namespace pelorin {

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
            breakAfter; // PELORIN_TEST_BREAK_AFTER: then the relay in use, or the next one, goes deaf
        static Switches fromEnvironment();
    };
    using Completion = std::function<void(Result<std::string, NetError>)>;

    PathSetup(QueueRef pathQueue, PathServers servers, PathServers::Lookup lookup, Switches switches);
    // With the system's names and the environment's switches.
    static std::unique_ptr<PathSetup> onThisMachine(QueueRef pathQueue, PathServers servers);
    ~PathSetup(); // closes the path and gives relays back

    // Opens the sockets and begins to ask for our reflexive address.
    Result<void, NetError> open();
    // Calls done when that is known or refused, or after atMost.
    void gather(Duration atMost, Task done);
    // What the peer must be told before its start; what turns up later goes through the pipe.
    PathDescription local();
    // Looks for a path to remote, with relays if there are credentials. completion gets the path's label
    // within 15 s, or why there is none; then all is closed and given back.
    void start(
        PathDescription remote, std::optional<TurnCredentials> turn, SignalPipe pipe, Completion completion);
    std::function<void(const std::string& label)> onPathChange; // after completion

    // For relays that have to be allocated anew: what start was given does not last for ever.
    void renewCredentials(TurnCredentials fresh);

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
    using Questions = std::shared_ptr<std::size_t>; // of one round, still open
    void learnReflexive();
    void askReflexive(const SocketAddress& server, const Questions& open);
    void reflexiveAnswered(const Questions& open, const Result<SocketAddress, NetError>& address);
    void settleReflexive();
    void announce(const Candidate& candidate);

    void listen();
    void listenForCandidates();
    void listenFor(const std::string& key, std::function<void(const nlohmann::json&)> act);
    void learnRemote(const nlohmann::json& candidates);
    void add(const Candidate& remote);
    void addRelayCandidate(const Candidate& remote);
    void reachThroughRelays(const Candidate& remote);

    void startRelay(const PathServers::Server& server, std::string candidateType);
    void startBackup();
    void channelOpened(Relay& relay, TurnClient& turn, std::uint16_t channel, const SocketAddress& peer);

    void punch();
    void punched(const Candidate& peer);
    void peerChecked(const SocketAddress& source);
    void receive(ByteView datagram, const SocketAddress& source);
    void receiveRelayed(ByteView datagram, const DatagramProxy::Path& over);

    void chosen(const PathLink& link);
    void fell(const PathLink& link);
    bool hasDirectPath() const;
    void finish(Result<std::string, NetError> result);
    void release();
    void breakRelay();

    const QueueRef queue;
    const PathServers servers;
    const PathServers::Lookup lookup;
    const Switches switches;

    std::unique_ptr<DatagramProxy> proxy; // none before open
    std::unique_ptr<StunBinder> binder;
    std::unique_ptr<Puncher> puncher;
    std::unique_ptr<PathLinks> links;
    PathFilter filter;
    std::vector<SocketAddress> stunServers;
    std::vector<Candidate> localCandidates; // in the order they became known
    bool isReflexiveSettled = false; // known or refused
    Task onGathered; // until then
    Subscription gathering;

    // From start on.
    std::vector<Candidate> remoteCandidates;
    std::optional<TurnCredentials> credentials;
    SignalPipe pipe;
    Completion completion; // until called
    std::vector<std::unique_ptr<Relay>> relays; // the primary one, then the backup
    Subscription deadline; // for a first path
    Subscription backupTimer;
    Subscription punchTimer; // the next search for a direct path
    int searches = 0; // since there was last a direct path
    Subscription breakTimer;
    bool isBreakDue = false; // since then no relay has been in use
    Log log{"path"};
    Lifetime lifetime;
};

} // namespace pelorin
