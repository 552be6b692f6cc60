#pragma once

#include "PelorinHost/Agents/AgentDeckKeeper.h"
#include "PelorinHost/HostServer.h"
#include "PelorinHost/Shell/ConnectionLog.h"
#include "PelorinHost/Shell/ControlSocket.h"
#include "PelorinHost/Shell/PairingCommands.h"
#include "PelorinNet/Identity/DeviceIdentity.h"

namespace pelorin {

// The program's centre: reads the settings, runs the server, takes what it reports, in order, onto its own
// queue, and answers the control socket. Queue: "main". Owns the server, the logs and the socket. Owned by
// the program.
class HostController {
public:
    struct Places {
        std::filesystem::path supportDirectory;
        std::filesystem::path logDirectory;
        AgentPlaces agents = {};
    };
    // Without makeSocket the host stays out of the rendezvous service's reach.
    HostController(SessionSurroundings surroundings, HostServer::Listen listen, Places places, QueueRef queue,
        RendezvousSocketMaker makeSocket = {});

    std::function<void()> onQuit; // everything is let go of, the program may end; at most once

    // The error is a text for people: another host runs here, or the directory can't be used.
    Result<void, std::string> start();
    void quit();

private:
    void loadIdentity();
    void startServer();
    void watchAgents();
    void handle(const ServerEvent& event);
    void handleRequest(const std::string& text, ControlSocket::Reply reply);
    void reportStatus(ControlSocket::Reply reply);
    void disconnectSession(ControlSocket::Reply reply);
    void beginPairing(ControlSocket::Reply reply);
    void reportAgents(ControlSocket::Reply reply);
    void noteAgent(std::string report, ControlSocket::Reply reply);
    std::optional<PairingCommands::Remote> remotePairing() const;
    std::optional<std::chrono::seconds> pairingOpenFor() const;
    void letGo();
    // A callback of the server's that does its work on our queue.
    template <class Work>
    auto here(const Work& work);

    SessionSurroundings surroundings;
    HostServer::Listen listen;
    Places places;
    QueueRef queue;
    RendezvousSocketMaker makeSocket;
    Log log{"controller"};
    HostConfig config;
    std::vector<std::string> settingsProblems; // for people
    std::shared_ptr<const DeviceIdentity> identity; // where there is a service to register with
    std::unique_ptr<ControlSocket> controlSocket;
    std::optional<ConnectionLog> connectionLog;
    Confined<HostServer> server;
    Confined<AgentDeckKeeper> agents;
    std::vector<std::string> allowedLogins;
    std::optional<std::string> rendezvousStatus;
    bool isQuitting = false;
    Subscription farewell;
    Lifetime lifetime;
};

} // namespace pelorin
