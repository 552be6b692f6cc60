#pragma once

#include "PelorinNet/Path/Candidate.h"
#include "PelorinNet/Path/ConnectivityCheck.h"
#include "PelorinNet/Path/DatagramProxy.h"

#include <deque>
#include <unordered_map>

namespace pelorin {

// Checks the peer's addresses, all of them every 50 ms, until one answers, and answers the peer's checks. The
// packets open the way through the NATs at both ends. Path queue; owned by PathSetup.
class Puncher {
public:
    using MayCheck = std::function<bool(const SocketAddress&)>;

    Puncher(DatagramProxy& newProxy, QueueRef newQueue, MayCheck newMayCheck);

    const PathCredentials local = PathCredentials::random(); // localUfrag, localPassword
    std::optional<PathCredentials>
        remote; // remoteUfrag, remotePassword: nothing is checked or answered before
    std::function<void(const Candidate&)> onSelected; // once for each start

    // A check of the peer's arrived from there and was answered; whether or not a search runs.
    std::function<void(const SocketAddress& source)> onPeerCheck;

    // Looks for the first of targets, and of those that the peer's own checks reveal ("prflx"), that answers;
    // completion gets it, or nothing when deadline passes or stop comes first. A start while one runs takes
    // its place, the former completion is never called; each start keeps what the peer revealed. Callbacks
    // may start anew or destroy the puncher.
    void start(const std::vector<Candidate>& newTargets, SteadyTime deadline,
        std::function<void(std::optional<Candidate>)> newCompletion);
    // One more address to check; at once, when a search runs. Known ones are ignored, and beyond 32 each
    // takes the oldest one's place.
    void add(const Candidate& target);
    void stop();
    // Every STUN datagram on the network socket that no server sent. Answers go on after a selection.
    void handle(ByteView datagram, const SocketAddress& source);

    const std::optional<Candidate>& selected() const { return selectedTarget; } // of the latest start
    int checksSent() const { return sentCount; }
    int checksAnswered() const { return answeredCount; }

private:
    using Completion = std::function<void(std::optional<Candidate>)>;

    void checkAll();
    void check(const SocketAddress& target);
    void handleAnswer(ByteView datagram, const StunMessage::TransactionID& id, const SocketAddress& source,
        const PathCredentials& sender);
    void answer(ByteView datagram, const SocketAddress& source, const PathCredentials& sender);
    void learn(const SocketAddress& source);
    void select(const SocketAddress& address);
    void end();
    const Candidate* find(const SocketAddress& address) const;

    DatagramProxy& proxy;
    const QueueRef queue;
    const MayCheck mayCheck;
    std::vector<Candidate> targets; // in the order received, no address twice
    std::unordered_map<StunMessage::TransactionID, SocketAddress> outstanding; // checks without an answer
    std::deque<StunMessage::TransactionID> sentOrder; // of those, and of answered ones
    std::optional<Candidate> selectedTarget;
    int sentCount = 0;
    int answeredCount = 0;
    Completion completion; // set while a search runs
    Subscription rounds;
    Subscription expiry;
    Lifetime lifetime;
};

} // namespace pelorin
