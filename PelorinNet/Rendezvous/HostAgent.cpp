#include "PelorinNet/Rendezvous/HostAgent.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Rendezvous/HostAgentSession.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using nlohmann::json;

constexpr std::size_t maxSessionIDSize = 128;
constexpr const char* notUnderstood = "看不懂的请求";
constexpr const char* notPaired = "这部手机没有和这台 Mac 配对（可能在 Mac 上被移除了），请重新配对";
constexpr const char* notGenuine = "连接请求没有通过验证（手机时间不准，或请求被重放）";
constexpr const char* wrongCode = "配对码不对、已经过期或已经用过。请在 Mac 菜单里重新点「配对新手机」";
constexpr const char* noListener = "the QUIC listener isn't ready";
constexpr const char* noRoom = "这台 Mac 上的远程连接太多了，请稍后再试";

json toJSON(const PathDescription& local)
{
    json candidates = json::array();
    for (const Candidate& candidate : local.candidates) candidates.push_back(candidate.json());
    return {{"ufrag", local.ufrag}, {"password", local.password}, {"candidates", std::move(candidates)}};
}

// Whose share of the memory for nonces a request uses: a phone that pairs anew keeps its own.
std::string keyOf(const ConnectRequest& request)
{
    return {request.clientKeyHash.begin(), request.clientKeyHash.end()};
}

// Where phones ask for that host, at the service that it is registered with.
std::optional<std::string> phonesURL(std::string_view registrationURL, const std::string& hostID)
{
    constexpr std::string_view path = "v1/host";
    if (!registrationURL.ends_with(path)) return std::nullopt;
    registrationURL.remove_suffix(path.size());
    return std::string(registrationURL) + "v1/connect/" + hostID;
}

json memberOf(const json& message, const char* key)
{
    return message.contains(key) ? message[key] : json();
}

} // namespace

HostAgent::HostAgent(QueueRef agentQueue, HostRegistration::Settings settings, Means newMeans)
    : hostID(KeyFingerprint::hostID(newMeans.identity.publicKey())),
      queue(std::move(agentQueue)),
      name(settings.name),
      means(std::move(newMeans)),
      expected(std::make_shared<ExpectedPhones>()),
      registration(queue, means.identity, std::move(settings), means.makeSocket)
{
    registration.onMessage = [this](const json& message) { handle(message); };
    registration.onLinkEnd = [this] { linkEnded(); };
    registration.onRegistered = [this](bool isRegistered) {
        if (onRegistered) onRegistered(isRegistered);
    };
}

HostAgent::~HostAgent() = default;

void HostAgent::start()
{
    queue->assertCurrent();
    listen();
    registration.start();
}

void HostAgent::stop()
{
    queue->assertCurrent();
    byLocalPort.clear();
    sessions.clear();
    listener.reset();
    registration.stop();
}

void HostAgent::networkChanged()
{
    queue->assertCurrent();
    registration.networkChanged();
    for (const auto& [id, session] : sessions) session->networkChanged();
}

// What the service brings

void HostAgent::handle(const json& message)
{
    const std::string type = ServiceMessage::text(message, "type");
    const std::string id = ServiceMessage::text(message, "session");
    if (id.empty() || id.size() > maxSessionIDSize) return;
    if (type == "connect") return requested(id, message);
    const auto found = sessions.find(id);
    if (found == sessions.end()) return;
    if (type == "signal") return found->second->deliver(memberOf(message, "data"));
    if (type == "closed") left(id);
}

void HostAgent::requested(const std::string& id, const json& message)
{
    if (sessions.contains(id)) return log.warning("the rendezvous service used a session's id again");
    const auto request = ConnectRequest::parse(memberOf(message, "request"));
    if (!request) return refuse(id, notUnderstood);
    const auto from = admitted(*request);
    if (!from) return refuse(id, from.error());
    open(id, *request, *from, ServiceMessage::servers(message));
}

Result<HostAgent::Phone, std::string> HostAgent::admitted(const ConnectRequest& request)
{
    auto from = request.pairing ? paired(request) : known(request);
    if (from && !makeRoom()) return std::unexpected(noRoom);
    return from;
}

Result<HostAgent::Phone, std::string> HostAgent::known(const ConnectRequest& request)
{
    auto from = phone ? phone(request.clientKeyHash) : std::nullopt;
    if (!from) return std::unexpected(notPaired);
    if (!isGenuine(request, from->publicKey)) return std::unexpected(notGenuine);
    granted(request);
    if (!listen()) return std::unexpected(noListener);
    return *from;
}

// Only a nonce that came with the right code is remembered: anybody can make keys, and must not fill our
// memory.
Result<HostAgent::Phone, std::string> HostAgent::paired(const ConnectRequest& request)
{
    const Bytes& key = request.pairing->clientKey;
    if (!isGenuine(request, key)) return std::unexpected(notGenuine);
    if (!listen()) return std::unexpected(noListener); // before a code is used up for nothing
    auto from = pair
        ? pair({key, request.pairing->deviceName, request.pairing->proof, request.pairingContext(hostID)})
        : std::nullopt;
    if (!from) return std::unexpected(wrongCode);
    granted(request);
    return *from;
}

bool HostAgent::isGenuine(const ConnectRequest& request, const Bytes& publicKey)
{
    return request.isTimely(queue->wallNow()) && seenNonces.isNew(request.nonce, keyOf(request), queue->now())
        && request.isSignedBy(publicKey, hostID);
}

void HostAgent::granted(const ConnectRequest& request)
{
    seenNonces.remember(request.nonce, keyOf(request), queue->now());
}

bool HostAgent::makeRoom()
{
    if (sessions.size() < maxSessions) return true;
    const Session* oldest = nullptr;
    for (const auto& [id, session] : sessions)
        if (!session->hasStream() && (!oldest || session->order() < oldest->order())) oldest = session.get();
    if (!oldest) return false;
    end(std::string(oldest->id()), noRoom);
    return true;
}

void HostAgent::refuse(const std::string& id, const std::string& reason)
{
    log.warning("refused a request: {}", reason);
    registration.send({{"type", "reject"}, {"session", id}, {"reason", reason}});
    if (onRefused) onRefused(reason);
}

// Sessions

void HostAgent::open(
    const std::string& id, const ConnectRequest& request, const Phone& from, ServiceMessage::Servers servers)
{
    const QueueRef pathQueue = means.queues.makeQueue("dev.pelorin.path");
    auto made = std::make_unique<Session>(Session::Origin{id, registration.number(), ++lastOrder, from,
                                              expected->expect(KeyFingerprint::of(from.publicKey))},
        queue, pathQueue, [makePath = means.makePath, pathQueue, path = std::move(servers.path)]() mutable {
            return makePath(pathQueue, std::move(path));
        });
    Session& session = *sessions.emplace(id, std::move(made)).first->second;
    session.onSignal = [this, &session](json data) {
        tell(session, {{"type", "signal"}, {"session", session.id()}, {"data", std::move(data)}});
    };
    session.onStream = [this, &session](std::unique_ptr<Channel> channel) {
        if (onStream) onStream(std::move(channel), session.phone());
    };
    session.onEnd = [this, id](const std::optional<std::string>& error) { end(id, error); };
    session.open(listener->port(),
        [this, id, request, turn = std::move(servers.credentials)](
            const Result<PathDescription, NetError>& local) { opened(id, request, turn, local); });
}

void HostAgent::opened(const std::string& id, const ConnectRequest& request,
    const std::optional<TurnCredentials>& turn, const Result<PathDescription, NetError>& local)
{
    Session& session = *sessions.at(id);
    if (!local) {
        const std::string reason = "Mac 无法打开网络端口：" + local.error().description;
        sessions.erase(id);
        return refuse(id, reason);
    }
    byLocalPort[session.localPort()] = &session;
    json response = toJSON(*local);
    if (request.pairing) {
        response["paired"] = true;
        response["hostName"] = name;
    }
    log.info("{}: connect request", session.phone().name);
    tell(session, {{"type", "accept"}, {"session", id}, {"response", std::move(response)}});
    session.start(request.remote, turn);
    const auto url = phonesURL(registration.url(), hostID);
    if (turn && url) session.renewCredentials(means.makeSocket, *url);
}

void HostAgent::tell(const Session& session, const json& message)
{
    if (session.link() == registration.number()) registration.send(message);
}

// The phone has left the service. With a path it may have no more use for that.
void HostAgent::left(const std::string& id)
{
    const Session& session = *sessions.at(id);
    if (session.isEstablished()) return;
    log.warning("{}: path setup failed: the phone left before the path was up", session.phone().name);
    byLocalPort.erase(session.localPort());
    sessions.erase(id);
}

void HostAgent::end(const std::string& id, const std::optional<std::string>& error)
{
    auto ended = sessions.extract(id);
    if (ended.empty()) return;
    const Session& session = *ended.mapped();
    byLocalPort.erase(session.localPort());
    if (error) tell(session, {{"type", "signal"}, {"session", id}, {"data", {{"error", *error}}}});
    tell(session, {{"type", "closed"}, {"session", id}});
}

void HostAgent::linkEnded()
{
    std::erase_if(sessions, [this](const auto& entry) {
        const Session& session = *entry.second;
        if (session.isEstablished()) return false;
        log.info("{}: the rendezvous service went before the path was up", session.phone().name);
        byLocalPort.erase(session.localPort());
        return true;
    });
}

// QUIC

bool HostAgent::listen()
{
    if (listener) return true;
    if (!parameters)
        parameters = PelorinQUIC::parameters(means.queues, means.identity, true,
            [expected = expected, phone = phone](const Bytes& fingerprint) {
                return expected->contains(fingerprint) && phone && phone(fingerprint);
            });
    auto made = PelorinQUIC::Listener::listen(queue, "127.0.0.1", 0, parameters);
    if (!made) {
        log.error("QUIC listener failed: {}", made.error().description);
        return false;
    }
    listener = std::move(*made);
    listener->onConnection
        = [this](std::unique_ptr<PelorinQUIC::Connection> connection) { adopt(std::move(connection)); };
    return true;
}

// Which phone it is the path tells; that it is that one, its key.
void HostAgent::adopt(std::unique_ptr<PelorinQUIC::Connection> connection)
{
    const auto found = byLocalPort.find(connection->remoteAddress().port);
    if (found == byLocalPort.end()) return log.warning("a QUIC connection came over no path of ours");
    Session& session = *found->second;
    if (connection->peerFingerprint() != KeyFingerprint::of(session.phone().publicKey))
        return log.warning("another phone came over the path of {}", session.phone().name);
    session.adopt(std::move(connection));
}

} // namespace pelorin
