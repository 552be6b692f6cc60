#include "Tests/Lab/PathEnd.h"

#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Path/NameLookup.h"

#include <nlohmann/json.hpp>

namespace pelorin::lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr Duration gatheringTime = 300ms; // that a phone waits for its reflexive address

SocketAddress loopback(std::uint16_t port)
{
    return SocketAddress::ipv4({127, 0, 0, 1}, port);
}

PathDescription descriptionIn(const json& introduction)
{
    PathDescription peer{introduction.at("ufrag"), introduction.at("password"), {}};
    for (const json& each : introduction.at("candidates"))
        if (const auto candidate = Candidate::parse(each)) peer.candidates.push_back(*candidate);
    return peer;
}

} // namespace

PathEnd::PathEnd(
    Settings newSettings, QueueMaker& queues, QueueRef newQueue, std::unique_ptr<SignalLine> newLine)
    : settings(std::move(newSettings)),
      queue(std::move(newQueue)),
      line(std::move(newLine)),
      identity(SoftwareIdentity::create(SigningKey::generate().value(), "pelorin-path-end", queue->wallNow())
              .value())
{
    parameters = PelorinQUIC::parameters(queues, *identity, settings.role == Role::host,
        [peerKey = peerKey](const Bytes& fingerprint) { return fingerprint == *peerKey; });
    line->onMessage = [this](const json& message) { handle(message); };
    line->onEnd = [this] { inbox->fail(NetError{"the signalling is gone"}); };
}

void PathEnd::start()
{
    if (settings.role == Role::phone) call();
}

// Before there is a path

void PathEnd::open()
{
    calledAt = queue->now();
    path = std::make_unique<PathSetup>(
        queue, settings.servers,
        [](const PathServers::Server& server, QueueRef on,
            std::function<void(std::vector<SocketAddress>)> done) {
            lookUpName(server, std::move(on), std::move(done));
        },
        settings.switches);
    const auto opened = path->open();
    require(opened.has_value(), "the path's sockets");
    path->onPathChange = [this](const std::string& newLabel) {
        label->change(newLabel);
        if (connection) connection->pathChanged();
        onReport({{"event", "changed"}, {"label", newLabel}, {"statistics", path->statistics()}});
    };
}

void PathEnd::call()
{
    open();
    path->gather(gatheringTime, [this] { line->send({{"connect", introduction()}}); });
}

void PathEnd::answer(const json& call)
{
    open();
    listen();
    line->send({{"accept", introduction()}});
    setUp(call);
}

void PathEnd::handle(const json& message)
{
    if (message.contains("connect")) return answer(message["connect"]);
    if (message.contains("accept")) return setUp(message["accept"]);
    if (message.contains("signal")) inbox->deliver(message["signal"]);
}

json PathEnd::introduction()
{
    const PathDescription own = path->local();
    json candidates = json::array();
    for (const Candidate& candidate : own.candidates) candidates.push_back(candidate.json());
    return {{"ufrag", own.ufrag}, {"password", own.password}, {"candidates", candidates},
        {"key", identity->fingerprint()}};
}

void PathEnd::setUp(const json& peer)
{
    *peerKey = peer.at("key").get<Bytes>();
    setUpAt = queue->now();
    const SignalPipe pipe{[this](const json& message) { line->send({{"signal", message}}); }, inbox};
    path->start(descriptionIn(peer), settings.credentials, pipe,
        [this](const Result<std::string, NetError>& result) { settled(result); });
}

void PathEnd::settled(const Result<std::string, NetError>& result)
{
    if (!result) return onReport({{"event", "failed"}, {"error", result.error().description}});
    label->change(*result);
    onReport(
        {{"event", "ready"}, {"label", *result}, {"ms", msSince(setUpAt)}, {"totalMs", msSince(calledAt)}});
    if (settings.role == Role::phone) connect();
}

// Over the path

void PathEnd::listen()
{
    listener = PelorinQUIC::Listener::listen(queue, "127.0.0.1", 0, parameters).value();
    listener->onConnection
        = [this](std::unique_ptr<PelorinQUIC::Connection> accepted) { adopt(std::move(accepted)); };
    path->setQuicEndpoint(loopback(listener->port()));
}

void PathEnd::connect()
{
    adopt(PelorinQUIC::connect(queue, loopback(path->localPort()), parameters).value());
    gotStream(connection->openStream());
}

void PathEnd::adopt(std::unique_ptr<PelorinQUIC::Connection> newConnection)
{
    connection = std::move(newConnection);
    connection->onReady = [this] { onReport({{"event", "secured"}, {"totalMs", msSince(calledAt)}}); };
    connection->onStream = [this](std::unique_ptr<Channel> stream) { gotStream(std::move(stream)); };
    connection->onClosed = [this](const std::optional<NetError>& error) {
        onReport({{"event", "closed"}, {"error", error ? error->description : ""}});
    };
}

void PathEnd::gotStream(std::unique_ptr<Channel> stream)
{
    onChannel(onPath(std::move(stream), label, ""));
}

double PathEnd::msSince(SteadyTime began) const
{
    return std::chrono::duration<double, std::milli>(queue->now() - began).count();
}

} // namespace pelorin::lab
