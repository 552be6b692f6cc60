#include "PelorinNet/Rendezvous/PhoneConnector.h"

#include "PelorinCore/Label.h"
#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Identity/PairingProof.h"
#include "PelorinNet/Rendezvous/ServiceMessage.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr Duration helloTimeout = 10s;
constexpr Duration answerTimeout = 35s; // the service itself gives the host 30 s
constexpr Duration pingPeriod = 15s;
constexpr std::size_t nonceSize = 16;
constexpr std::size_t maxCandidates = 64; // that the host may tell at once

// For the last words of QUIC: the stream's, then the connection's own.
constexpr Duration streamFarewell = 1s, pathFarewell = 100ms;

constexpr const char* senseless = "the rendezvous service's answer makes no sense";
constexpr const char* hostLeft = "the host left before the path was up";
constexpr const char* offline
    = "the host is not registered with its rendezvous service now: it is off, asleep or without a network";

std::optional<PathDescription> descriptionIn(const json& response)
{
    PathDescription host{
        ServiceMessage::text(response, "ufrag"), ServiceMessage::text(response, "password"), {}};
    if (host.ufrag.empty() || host.password.empty()) return std::nullopt;
    const auto candidates = response.find("candidates");
    if (candidates == response.end() || !candidates->is_array()) return std::nullopt;
    for (const json& each : *candidates) {
        if (host.candidates.size() == maxCandidates) break;
        if (auto candidate = Candidate::parse(each)) host.candidates.push_back(std::move(*candidate));
    }
    return host;
}

bool isTrue(const json& message, const char* key)
{
    const auto found = message.find(key);
    return found != message.end() && found->is_boolean() && found->get<bool>();
}

// What is left of a session while its last bytes go out.
struct Farewell {
    std::unique_ptr<PathSetup> setup;
    std::unique_ptr<PelorinQUIC::Connection> connection; // goes first: its close takes the path
};

} // namespace

PhoneConnector::PhoneConnector(
    QueueRef newQueue, Means newMeans, RemotePlace newPlace, std::optional<Pairing> newPairing)
    : queue(std::move(newQueue)),
      means(std::move(newMeans)),
      place(std::move(newPlace)),
      pairing(std::move(newPairing))
{
}

PhoneConnector::~PhoneConnector()
{
    if (!setup) return;
    lifetime.end(); // nobody is called back from here on
    renewal.reset();
    stream.reset();
    const auto farewell = std::make_shared<Farewell>(std::move(setup), std::move(connection));
    queue->postAfter(streamFarewell, [farewell] { farewell->connection.reset(); });
    queue->postAfter(streamFarewell + pathFarewell, [farewell] { farewell->setup.reset(); });
}

// By way of the service

void PhoneConnector::start()
{
    queue->assertCurrent();
    startedAt = queue->now();
    const auto url = rendezvousURL(place.service, "v1/connect/" + place.hostID);
    if (!url) {
        queue->post([this, alive = lifetime.watch()] {
            if (alive)
                fail(Failure::Kind::serviceUnreachable, place.service + " is no rendezvous service's URL");
        });
        return;
    }
    socket = means.makeSocket(queue, *url);
    socket->open([this](const Result<void, NetError>& result) { opened(result); });
}

void PhoneConnector::opened(const Result<void, NetError>& result)
{
    if (!result)
        return fail(Failure::Kind::serviceUnreachable,
            fmt::format(
                "the rendezvous service {} can't be reached: {}", place.service, result.error().description));
    await(helloTimeout, &PhoneConnector::greeted);
}

void PhoneConnector::await(std::optional<Duration> timeout, void (PhoneConnector::*step)(const json&))
{
    socket->next("type", timeout, [this, step](const Result<json, NetError>& message) {
        if (!message) return serviceLost(message.error());
        (this->*step)(*message);
    });
}

void PhoneConnector::greeted(const json& message)
{
    if (ServiceMessage::text(message, "type") != "hello") return fail(Failure::Kind::lost, senseless);
    if (!isTrue(message, "online")) return fail(Failure::Kind::hostOffline, offline);
    done.service = sinceStart();
    auto servers = ServiceMessage::servers(message);
    turn = std::move(servers.credentials);
    setup = means.makePath(queue, std::move(servers.path));
    if (const auto result = setup->open(); !result)
        return fail(Failure::Kind::noPath, "cannot open a network port: " + result.error().description);
    setup->onPathChange = [this, alive = lifetime.watch()](const std::string& newLabel) {
        if (alive) pathChanged(newLabel);
    };
    ask();
}

// At once: how the network sees us is found out while the request is on its way, and told afterwards.
void PhoneConnector::ask()
{
    const auto request = makeRequest();
    if (!request) return;
    socket->send({{"type", "connect"}, {"request", request->toJSON()}});
    keepAlive = queue->every(pingPeriod, [this] { socket->ping(); });
    await(answerTimeout, &PhoneConnector::answered);
}

std::optional<ConnectRequest> PhoneConnector::makeRequest()
{
    ConnectRequest request;
    request.timestamp = std::chrono::floor<std::chrono::seconds>(queue->wallNow().time_since_epoch()).count();
    request.nonce = base64URLEncodedString(PelorinTLS::randomBytes(nonceSize));
    request.remote = setup->local();
    if (pairing) {
        const Bytes& key = means.identity.publicKey();
        request.pairing = {
            pairing->deviceName, key, pairingProof(pairing->code, key, request.pairingContext(place.hostID))};
    }
    const auto isSigned = request.sign(means.identity, place.hostID);
    if (isSigned) return request;
    fail(Failure::Kind::lost, "cannot sign the request: " + isSigned.error().description);
    return std::nullopt;
}

void PhoneConnector::answered(const json& message)
{
    const std::string type = ServiceMessage::text(message, "type");
    if (type == "closed") return fail(Failure::Kind::lost, hostLeft);
    if (type == "reject") {
        const std::string reason = asLabel(ServiceMessage::text(message, "reason"));
        return fail(Failure::Kind::refused, reason.empty() ? "the host refused without a word" : reason);
    }
    const auto response = message.find("response");
    if (type != "accept" || response == message.end() || !response->is_object())
        return fail(Failure::Kind::lost, senseless);
    accepted(*response);
}

void PhoneConnector::accepted(const json& response)
{
    auto host = descriptionIn(response);
    if (!host || (pairing && !isTrue(response, "paired"))) return fail(Failure::Kind::lost, senseless);
    hostName = asLabel(ServiceMessage::text(response, "hostName"));
    done.accepted = sinceStart();
    const SignalPipe pipe{[this, alive = lifetime.watch()](json data) {
                              if (alive) socket->send({{"type", "signal"}, {"data", std::move(data)}});
                          },
        inbox};
    await(std::nullopt, &PhoneConnector::signalled);
    setup->start(std::move(*host), turn, pipe, [this, alive = lifetime.watch()](const auto& result) {
        if (alive) pathReady(result);
    });
}

void PhoneConnector::signalled(const json& message)
{
    const std::string type = ServiceMessage::text(message, "type");
    if (type == "closed") return inbox->fail(NetError{hostLeft});
    if (const auto data = message.find("data"); type == "signal" && data != message.end())
        inbox->deliver(*data);
    await(std::nullopt, &PhoneConnector::signalled);
}

// A path that is up needs the service no longer; it only finds other ways less well.
void PhoneConnector::serviceLost(const NetError& error)
{
    keepAlive.cancel();
    if (done.path) return log.info("the rendezvous service is gone: {}", error.description);
    const std::string text = "the rendezvous service is gone before there was a path: " + error.description;
    if (done.accepted) return inbox->fail(NetError{text});
    fail(Failure::Kind::lost, error.description == "timed out" ? "the host did not answer" : text);
}

// Over the path

void PhoneConnector::pathReady(const Result<std::string, NetError>& result)
{
    if (!result) return fail(Failure::Kind::noPath, "no path to the host: " + result.error().description);
    done.path = sinceStart();
    label->change(*result);
    if (turn) renewCredentials();
    connect();
}

void PhoneConnector::renewCredentials()
{
    const auto url = rendezvousURL(place.service, "v1/connect/" + place.hostID);
    renewal = std::make_unique<CredentialRenewal>(queue, means.makeSocket, *url);
    renewal->onFresh = [this](const TurnCredentials& fresh) { setup->renewCredentials(fresh); };
}

void PhoneConnector::connect()
{
    const auto accept = [expected = place.fingerprint, verdict = verdict](const Bytes& shown) {
        verdict->isStranger = shown != expected;
        return shown == expected;
    };
    auto made = PelorinQUIC::connect(queue, SocketAddress::ipv4({127, 0, 0, 1}, setup->localPort()),
        PelorinQUIC::parameters(means.queues, means.identity, false, accept));
    if (!made) return fail(Failure::Kind::lost, made.error().description);
    connection = std::move(*made);
    connection->onReady = [this, alive = lifetime.watch()] {
        if (alive) secured();
    };
    connection->onClosed = [this, alive = lifetime.watch()](const std::optional<NetError>& error) {
        if (alive) ended(error);
    };
    stream = connection->openStream();
}

void PhoneConnector::pathChanged(const std::string& newLabel)
{
    label->change(newLabel);
    if (connection) connection->pathChanged();
    if (onPathChange) onPathChange(newLabel);
}

void PhoneConnector::secured()
{
    done.secured = sinceStart();
    log.info("connected over {}", label->get());
    finish(Reached{onPath(std::move(stream), label, ""), std::move(hostName)});
}

// Once the stream is handed over, it tells its owner.
void PhoneConnector::ended(const std::optional<NetError>& error)
{
    if (verdict->isStranger)
        return fail(Failure::Kind::wrongHost, "what answers on the path is not the host that was paired");
    fail(Failure::Kind::lost,
        "the connection over the path failed: " + (error ? error->description : "the host closed it"));
}

void PhoneConnector::networkChanged()
{
    queue->assertCurrent();
    if (setup) setup->networkChanged();
}

void PhoneConnector::fail(Failure::Kind kind, std::string text)
{
    finish(std::unexpected(Failure{kind, std::move(text)}));
}

void PhoneConnector::finish(Result<Reached, Failure> result)
{
    if (onDone) std::exchange(onDone, nullptr)(std::move(result));
}

} // namespace pelorin
