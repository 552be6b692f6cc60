#pragma once

#include "PelorinNet/Path/DatagramProxy.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <deque>

namespace pelorin {

// One way to the peer and what its checks have told about it. A value: time comes in, sending is the owner's.
class PathLink {
public:
    enum class Kind { direct, oneRelay, twoRelays }; // the best first
    using TransactionID = StunMessage::TransactionID;

    // remote: the peer's address at the far end of the way. label: the way as people read it.
    PathLink(DatagramProxy::Path newWay, SocketAddress newRemote, Kind newKind, std::string newLabel,
        SteadyTime now);

    const DatagramProxy::Path& way() const { return path; }
    const SocketAddress& remote() const { return peer; }
    Kind kind() const { return relays; }
    const std::string& label() const { return text; }

    SteadyTime since() const { return stateSince; } // it stands, fell or was first heard of
    bool isStanding() const { return state == State::standing; } // answered, and never fell since
    // Standing, and not merely between two falls: worth leaving a path that works for it.
    bool isProven() const;
    bool hasMissed() const { return missed > 0; } // the last answer, at least
    Duration rtt() const { return smoothedRtt.value_or(Duration{}); } // zero before the first answer
    SteadyTime lastAnswered() const { return answeredAt; }

    // How long after a check its answer counts as missed.
    Duration patience() const;
    bool isCheckDue(SteadyTime now, bool isChosen) const;
    void checkSent(const TransactionID& id, SteadyTime now);
    bool isAwaiting(const TransactionID& id) const;
    void answered(const TransactionID& id, SteadyTime now);
    // Counts the answers that are missed by now; true when that makes a standing way fall.
    bool expireChecks(SteadyTime now);

    void proved(SteadyTime now); // somebody else's check was answered here
    void suspect(SteadyTime now); // and the following come fast, until one is answered or the way falls
    bool isSuspected() const { return isSuspect; }
    bool fall(SteadyTime now); // the network says it is dead; true when it stood

private:
    enum class State { unproven, standing, fallen };
    struct Check {
        TransactionID id;
        SteadyTime sentAt;
        bool isMissed = false;
    };
    Duration interval(SteadyTime now, bool isChosen) const;
    void stand(SteadyTime now);

    DatagramProxy::Path path;
    SocketAddress peer;
    Kind relays;
    std::string text;

    State state = State::unproven;
    SteadyTime stateSince;
    std::deque<Check> checks; // unanswered, oldest first
    std::optional<SteadyTime> lastCheck;
    SteadyTime answeredAt{};
    std::optional<Duration> smoothedRtt;
    int missed = 0; // in a row
    int answers = 0; // in a row
    bool hasFallen = false;
    bool isSuspect = false;
};

} // namespace pelorin
