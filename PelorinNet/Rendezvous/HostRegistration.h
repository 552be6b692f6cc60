#pragma once

#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinNet/Log.h"
#include "PelorinNet/Rendezvous/RendezvousSocket.h"

namespace pelorin {

// Keeps this host registered with the rendezvous service: connects, proves its key, watches that the service
// still answers, and begins anew when it does not. Queue: the agent's. Owns the socket. Owned by the
// HostAgent.
class HostRegistration {
public:
    struct Settings {
        std::string name; // how the host calls itself
        std::vector<std::string> urls; // ws or wss; the first, then those to try in turn when it fails
    };

    HostRegistration(QueueRef newQueue, const DeviceIdentity& newIdentity, Settings newSettings,
        RendezvousSocketMaker newMakeSocket);

    // All on the queue; they may destroy the registration.
    std::function<void(bool isRegistered)> onRegistered; // false: an attempt failed, or a registration ended
    std::function<void(const nlohmann::json&)> onMessage; // with a "type"
    std::function<void()> onLinkEnd; // of a registration

    void start();
    void stop();
    // The machine's interfaces or routes have changed: whatever waits is tried now, and a connection that
    // stands has to show that it still does.
    void networkChanged();

    void send(const nlohmann::json& message); // lost while there is no registration
    // Which registration this is; the service knows of a session only in the one that it began in.
    int number() const { return socketNumber; }
    const std::string& url() const { return settings.urls[attempt % settings.urls.size()]; } // of the service
    bool isRegistered() const { return watchdog.operator bool(); }

private:
    void connect();
    void challenged(const nlohmann::json& message);
    void answered(const nlohmann::json& message);
    void registered();
    void listen();
    void await(void (HostRegistration::*step)(const nlohmann::json&));
    void checkSilence();
    void lost(const std::string& why);
    void dropSocket();
    void retryLater(const std::string& why);
    void reconnect();

    const QueueRef queue;
    const DeviceIdentity& identity;
    const std::string hostID;
    const Settings settings;
    const RendezvousSocketMaker makeSocket;
    std::unique_ptr<RendezvousSocket> socket;
    int socketNumber = 0; // of the latest one
    std::size_t attempt = 0; // since the last good registration; chooses the URL
    SteadyTime registeredAt;
    std::string reported; // the last failure in the log
    Subscription watchdog; // while registered
    Subscription probe; // for an answer after a change of the network
    Subscription retry;
    Log log{"rendezvous"};
    Lifetime lifetime;
};

} // namespace pelorin
