#include "PelorinHost/HostController.h"

#include "PelorinHost/Shell/StatusReport.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr auto farewellTime = 300ms; // for the last message to reach a phone before the program is gone

template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};

// A request's members that are texts.
using Request = std::map<std::string, std::string>;

Request parse(const std::string& text)
{
    constexpr int mostNested = 4; // a request is a flat object
    const auto keepShallow = [](int depth, json::parse_event_t, json&) { return depth < mostNested; };
    const json parsed = json::parse(text, keepShallow, false);
    Request request;
    if (!parsed.is_object()) return request;
    for (const auto& [key, value] : parsed.items())
        if (value.is_string()) request[key] = value.get<std::string>();
    return request;
}

std::string line(const json& object)
{
    return object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace

HostController::HostController(SessionSurroundings newSurroundings, HostServer::Listen newListen,
    Places newPlaces, QueueRef newQueue, RendezvousSocketMaker newMakeSocket)
    : surroundings(std::move(newSurroundings)),
      listen(std::move(newListen)),
      places(std::move(newPlaces)),
      queue(std::move(newQueue)),
      makeSocket(std::move(newMakeSocket))
{
}

Result<void, std::string> HostController::start()
{
    queue->assertCurrent();
    // First of all: whoever loses against another host must not touch that one's files.
    auto socket = ControlSocket::open(places.supportDirectory, queue);
    if (!socket) return std::unexpected(socket.error());
    controlSocket = std::move(*socket);
    controlSocket->onRequest = [this](const std::string& request, ControlSocket::Reply reply) {
        handleRequest(request, std::move(reply));
    };
    surroundings.platform.displays().keepNotesIn(places.supportDirectory);
    surroundings.platform.letGoAfterEarlierHost();
    if (auto problem = HostConfig::problemIn(places.supportDirectory)) settingsProblems.push_back(*problem);
    for (const auto& problem : settingsProblems)
        log.warning("settings: {}", problem.substr(problem.find('\n') + 1)); // logs are English
    config = HostConfig::load(places.supportDirectory);
    connectionLog.emplace(places.logDirectory);
    const auto service = RemoteEntrance::serviceIn(config);
    if (service)
        loadIdentity();
    else
        log.info("rendezvous: no phone comes in from elsewhere: {}", service.error());
    if (!service && config.rendezvous && !config.rendezvousURL.empty())
        settingsProblems.push_back(service.error());
    startServer();
    watchAgents();
    return {};
}

void HostController::loadIdentity()
{
    auto loaded = SoftwareIdentity::loadOrCreate(places.supportDirectory / SoftwareIdentity::fileName,
        surroundings.platform.system().hostName(), queue->wallNow());
    if (loaded)
        identity = std::move(*loaded);
    else
        log.error("rendezvous: cannot load or create this Mac's key: {}", loaded.error().description);
}

template <class Work>
auto HostController::here(const Work& work)
{
    return [work, queue = queue, alive = lifetime.watch()](auto... values) {
        queue->post([work, alive, ... values = std::move(values)] {
            if (alive) work(values...);
        });
    };
}

void HostController::startServer()
{
    const QueueRef serverQueue = surroundings.queues.makeQueue("dev.pelorin.host.server");
    std::optional<RemoteEntrance::Means> remote;
    if (makeSocket && identity)
        remote = RemoteEntrance::Means{makeSocket, *RemoteEntrance::serviceIn(config), identity};
    server = Confined<HostServer>(
        serverQueue, [surroundings = surroundings, config = config, listen = listen, serverQueue, remote] {
            return std::make_unique<HostServer>(surroundings, config, listen, serverQueue, remote);
        });
    server.run([onEvent = here([this](const ServerEvent& event) { handle(event); }),
                   onLine = here([this](const std::string& text) {
                       connectionLog->append(text, queue->wallNow());
                   })](HostServer& running) {
        running.onEvent = onEvent;
        running.onConnectionLog = onLine;
        running.start();
    });
}

void HostController::watchAgents()
{
    const QueueRef agentQueue = surroundings.queues.makeQueue("dev.pelorin.host.agents");
    agents = Confined<AgentDeckKeeper>(agentQueue,
        [where = places.agents, agentQueue] { return std::make_unique<AgentDeckKeeper>(where, agentQueue); });
}

void HostController::handle(const ServerEvent& event)
{
    std::visit(Overloaded{
                   [&](const serverEvent::AllowedLogins& logins) { allowedLogins = logins.names; },
                   [&](const serverEvent::Rendezvous& rendezvous) { rendezvousStatus = rendezvous.status; },
                   [&](const serverEvent::Stats& stats) { log.debug("{}", stats.line); },
                   [](const auto&) {}, // the server's own log and status tell of these
               },
        event);
}

void HostController::handleRequest(const std::string& text, ControlSocket::Reply reply)
{
    Request request = parse(text);
    const std::string& command = request["command"];
    if (command == "status") return reportStatus(std::move(reply));
    if (command == "disconnect") return disconnectSession(std::move(reply));
    if (command == "pair") return beginPairing(std::move(reply));
    if (command == "review")
        return reply(
            PairingCommands::review(config, surroundings.platform.system().hostName(), remotePairing()));
    if (command == "connections") return reply(line({{"connections", connectionLog->latest()}}));
    if (command == "devices") return reply(PairingCommands::devices(surroundings.pairing));
    if (command == "remove") return reply(PairingCommands::remove(surroundings.pairing, request["id"]));
    if (command == "agents") return reportAgents(std::move(reply));
    if (command == "agent-event") return noteAgent(request["event"], std::move(reply));
    if (command != "quit") return reply(line({{"error", "unknown command"}}));
    reply(line({{"quitting", true}}));
    quit();
}

void HostController::reportStatus(ControlSocket::Reply reply)
{
    const auto answer = here([this, reply = std::move(reply)](const HostServer::Status& status) {
        reply(StatusReport{.server = status,
            .allowedLogins = allowedLogins,
            .rendezvous = rendezvousStatus,
            .settingsProblems = settingsProblems,
            .isTestMode = config.allowLoopbackForTesting,
            .requiresPairing = config.requirePairing && !config.allowLoopbackForTesting,
            .pairingOpenFor = pairingOpenFor(),
            .hasReviewCode = !config.reviewPairingCode.empty(),
            .pairedDevices = surroundings.pairing.devices().size()}
                .toJSON());
    });
    server.run([answer](HostServer& running) { answer(running.status()); });
}

void HostController::disconnectSession(ControlSocket::Reply reply)
{
    const auto answer
        = here([reply = std::move(reply)](bool hadSession) { reply(line({{"disconnected", hadSession}})); });
    server.run([answer](HostServer& running) { answer(running.disconnect()); });
}

void HostController::beginPairing(ControlSocket::Reply reply)
{
    const auto answer = here([this, reply = std::move(reply)](const HostServer::Status& status) {
        reply(PairingCommands::pair(surroundings.pairing, status, config,
            surroundings.platform.system().hostName(), remotePairing()));
    });
    server.run([answer](HostServer& running) { answer(running.status()); });
}

void HostController::reportAgents(ControlSocket::Reply reply)
{
    const auto answer = here([reply = std::move(reply)](const AgentDeckState& state) {
        reply(state.encode(DateCoding::secondsSince2001, 2) + "\n");
    });
    agents.run([answer](AgentDeckKeeper& keeper) { answer(keeper.state()); });
}

void HostController::noteAgent(std::string report, ControlSocket::Reply reply)
{
    const auto answer = here([reply = std::move(reply)](bool isNoted) { reply(line({{"noted", isNoted}})); });
    agents.run(
        [answer, report = std::move(report)](AgentDeckKeeper& keeper) { answer(keeper.noteClaude(report)); });
}

std::optional<PairingCommands::Remote> HostController::remotePairing() const
{
    if (!identity) return std::nullopt;
    return PairingCommands::Remote{KeyFingerprint::hostID(identity->publicKey()), identity->fingerprint()};
}

std::optional<std::chrono::seconds> HostController::pairingOpenFor() const
{
    const auto offer = surroundings.pairing.pending();
    if (!offer) return std::nullopt;
    const Duration left
        = std::min<Duration>(offer->expiresAtSteady - queue->now(), offer->expiresAt - queue->wallNow());
    return std::chrono::ceil<std::chrono::seconds>(left);
}

void HostController::quit()
{
    queue->assertCurrent();
    if (std::exchange(isQuitting, true)) return;
    const auto afterwards = here([this](bool hadPhone) {
        const Duration wait = hadPhone ? Duration(farewellTime) : Duration::zero();
        farewell = queue->after(wait, [this] { letGo(); });
    });
    server.run([afterwards](HostServer& running) { afterwards(running.stop()); });
}

void HostController::letGo()
{
    agents = {};
    server = {};
    controlSocket.reset();
    if (onQuit) onQuit();
}

} // namespace pelorin
