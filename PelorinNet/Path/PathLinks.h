#pragma once

#include "PelorinNet/Log.h"
#include "PelorinNet/Path/ConnectivityCheck.h"
#include "PelorinNet/Path/PathLink.h"

namespace pelorin {

// Every way to the peer that has come up, kept alive and judged by authenticated checks, and the choice among
// them: direct before relayed, standing before all. The choice becomes the proxy's path. Path queue; owned by
// PathSetup.
class PathLinks {
public:
    PathLinks(DatagramProxy& newProxy, QueueRef newQueue, PathCredentials newLocal);

    // Each may destroy us. The first choice, every change of it, and that the chosen one is back after it
    // fell with no other to take its place.
    std::function<void(const PathLink& chosen)> onChosen;
    std::function<void(const PathLink& fallen)>
        onFell; // stood, and does no more; chosen or not; another has been chosen by then
    std::function<void()> onSilence; // nothing comes back over the chosen one, which has not fallen yet

    // Checks begin. Before relayFrom no relayed way is chosen: a direct one may be as quick.
    void start(PathCredentials remote, SteadyTime relayFrom);

    // Known ways are ignored. Of more than 32 the one that has been dead for longest is forgotten.
    void add(
        const DatagramProxy::Path& way, const SocketAddress& remote, PathLink::Kind kind, std::string label);
    void proved(const DatagramProxy::Path& way); // by the puncher
    void removeRelay(const TurnClient& turn); // before it goes
    void relayUnreachable(const TurnClient& turn);
    void unreachable(const SocketAddress& peer); // over the direct way
    void suspectAll();

    // A check of the peer's came over that way: it may just have opened.
    void peerChecked(const DatagramProxy::Path& way);
    bool handleAnswer(ByteView datagram, const DatagramProxy::Path& over); // whether it was one of ours
    // The peer's check that came through a relay is answered there.
    void answerRelayed(ByteView datagram, const DatagramProxy::Path& over);
    void arrivalPathChanged(const DatagramProxy::Path& over);

    const PathLink* chosen() const;
    bool isStanding(const DatagramProxy::Path& way) const;
    bool hasStanding(PathLink::Kind kind) const;

private:
    void stands(const DatagramProxy::Path& way, bool wasStanding);
    void tick();
    void expireChecks(SteadyTime now);
    void suspectSilence(SteadyTime now);
    void check(PathLink& link, SteadyTime now);
    void choose();
    const PathLink* bestChoice(SteadyTime now) const;
    const PathLink* best() const; // of all that stand
    PathLink* find(const DatagramProxy::Path& way);
    const PathLink* find(const DatagramProxy::Path& way) const;
    void fell(const PathLink& link);
    bool forgetOldest();

    DatagramProxy& proxy;
    const QueueRef queue;
    const PathCredentials local;
    std::optional<PathCredentials> remote; // none before start
    SteadyTime relayFrom{};
    SteadyTime chosenAt{};
    std::optional<DatagramProxy::Path> peerChoice; // over which its traffic came last
    std::vector<PathLink> links;
    Subscription ticks;
    Log log{"path"};
    Lifetime lifetime;
};

} // namespace pelorin
