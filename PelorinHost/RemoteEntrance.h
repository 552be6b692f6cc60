#pragma once

#include "PelorinHost/HostSession.h"
#include "PelorinNet/Queue/Confined.h"
#include "PelorinNet/Rendezvous/HostAgent.h"

namespace pelorin {

// The way in for phones that are elsewhere: keeps this host registered with the rendezvous service, lets the
// pairing store say who may come, and hands over their streams. Queue: the server's. Owns the
// agent, which lives on a queue of its own. Owned by the HostServer.
class RemoteEntrance {
public:
    struct Means {
        RendezvousSocketMaker makeSocket;
        std::string url; // of the service, for a socket
        std::shared_ptr<const DeviceIdentity> identity; // this host's
        HostAgent::MakePath makePath = PathSetup::onThisMachine;
    };
    // The service's URL for a socket, or why nobody comes in from elsewhere.
    static Result<std::string, std::string> serviceIn(const HostConfig& config);

    RemoteEntrance(
        const SessionSurroundings& surroundings, const HostConfig& config, Means means, QueueRef newQueue);
    ~RemoteEntrance(); // ends the paths of all sessions

    // All on the queue.
    std::function<void(std::unique_ptr<Channel>, const std::string& phoneName)> onStream;
    std::function<void()> onRegistration; // began or ended
    // A request was refused. Not called again for ten seconds: a flood of them must fill no log.
    std::function<void(const std::string& reason)> onRefused;

    // This host's name at the service, while it is registered there.
    std::optional<std::string> registeredAs() const;

private:
    struct Home;

    void start(PairingStore& store, std::optional<SecretBytes> reviewCode);
    void registrationChanged(bool isNowRegistered);
    void refused(const std::string& reason);

    const QueueRef queue;
    const std::string hostID;
    Confined<Home> home;
    bool isRegistered = false;
    std::optional<SteadyTime> lastRefusal; // that was told
    Lifetime lifetime;
};

} // namespace pelorin
