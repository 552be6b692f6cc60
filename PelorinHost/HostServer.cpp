#include "PelorinHost/HostServer.h"

#include "PelorinHost/Session/HelloExchange.h"
#include "PelorinHost/Session/LockRule.h"

#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto refreshPeriod = 5s;
constexpr auto lockGrace = 10s; // in which a phone that dropped out may come back

// A phone says hello with its first packet. Who connects and stays silent, or connects again and again, must
// not use up the machine.
constexpr std::size_t maxPendingSessions = 32;
constexpr auto helloTimeout = 10s;

const std::string loopbackAddress = "127.0.0.1";

bool isLoopback(const std::string& address)
{
    return address == "::1" || address.starts_with("127.");
}

} // namespace

// Brings what a session reports, on its queue, to the server's.
struct HostServer::Reporter {
    HostServer* server;
    ConnectionID id;
    QueueRef queue;
    Lifetime::Watch alive;

    void attachTo(HostSession& session) const
    {
        session.onHello
            = [*this](HostSession& accepted) { report(&HostServer::saidHello, accepted.figures()); };
        session.onStats = [*this](const SessionFigures& figures) { report(&HostServer::updated, figures); };
        session.onOptionsChanged
            = [*this](HostSession& changed) { report(&HostServer::optionsChanged, changed.options); };
        session.onClose = [*this](HostSession& ended, const std::optional<std::string>& reason) {
            report(&HostServer::sessionClosed, ended.endKind, reason.value_or("closed"));
        };
    }

    template <class Method, class... Values>
    void report(Method method, const Values&... values) const
    {
        queue->post([... values = values, method, *this] {
            if (alive) (server->*method)(id, values...);
        });
    }
};

HostServer::HostServer(
    SessionSurroundings newSurroundings, HostConfig newConfig, Listen newListen, QueueRef newQueue)
    : surroundings(newSurroundings),
      config(std::move(newConfig)),
      listen(std::move(newListen)),
      queue(std::move(newQueue))
{
}

HostServer::~HostServer() = default;

void HostServer::start()
{
    queue->assertCurrent();
    timer = queue->every(refreshPeriod, [this] { refresh(); });
    refresh();
}

bool HostServer::stop()
{
    queue->assertCurrent();
    timer.cancel();
    listener.reset();
    const bool hadPhone = activeSession || !pendingSessions.empty();
    for (auto& [id, record] : pendingSessions) end(record, SessionEnd::onMac());
    pendingSessions.clear();
    disconnect();
    return hadPhone;
}

void HostServer::refresh()
{
    const auto address = bindAddress();
    if (address && address == boundAddress) return;
    if (!address && reportedNoAddress) return;
    listener.reset();
    boundAddress.reset();
    reportedNoAddress = !address;
    if (address) return listenOn(*address);
    writeConnectionLog("no Tailscale address; waiting for Tailscale");
    publish(serverEvent::Listening{});
}

// Without the tailnet there is no address to be reached at.
std::optional<std::string> HostServer::bindAddress() const
{
    if (config.allowLoopbackForTesting) return loopbackAddress;
    return std::nullopt;
}

void HostServer::listenOn(const std::string& address)
{
    auto made = listen(queue, address, config.port);
    if (!made) return log.error("listen on {} failed: {}", address, made.error().description);
    listener = std::move(*made);
    boundAddress = address;
    listener->onConnection = [this](std::unique_ptr<Channel> connection) { accept(std::move(connection)); };
    listener->onFailure = [this](const NetError& error) {
        log.error("listener failed: {}", error.description);
        publish(serverEvent::Listening{});
        boundAddress.reset(); // the next refresh tries again
    };
    log.info("listening on {}:{}", address, listener->port());
    publish(serverEvent::Listening{address});
}

void HostServer::accept(std::unique_ptr<Channel> connection)
{
    queue->assertCurrent();
    const auto peer = admission(connection->remoteAddress());
    if (!peer) return refuse(std::move(connection), peer.error());
    makeRoom();
    addSession(std::move(connection), *peer);
}

Result<std::string, std::string> HostServer::admission(const std::string& address) const
{
    if (!config.allowLoopbackForTesting) return std::unexpected("不是 Tailscale 地址");
    if (!isLoopback(address)) return std::unexpected("测试模式只接受本机连接");
    return "本机（测试模式）";
}

void HostServer::refuse(std::unique_ptr<Channel> connection, const std::string& reason)
{
    const std::string peer = connection->remoteAddress();
    log.warning("rejected {}: {}", peer, reason);
    writeConnectionLog(fmt::format("rejected {}: {}", peer, reason));
    publish(serverEvent::Rejected{fmt::format("{}：{}", peer, reason)});
    connection->start(queue);
    connection->send(encodeFrame(message::Error{ErrorCode::unauthorized, reason}));
    connection->finish();
}

// The oldest goes: it has had the most time, and a phone that comes now shall not be kept out by those who
// only hold a place.
void HostServer::makeRoom()
{
    if (pendingSessions.size() < maxPendingSessions) return;
    auto oldest = pendingSessions.extract(pendingSessions.begin());
    end(oldest.mapped(), SessionEnd::tooManyWaiting());
    waitingEnded(oldest.mapped(), SessionEnd::tooManyWaiting().reason);
}

void HostServer::addSession(std::unique_ptr<Channel> connection, std::string peer)
{
    const ConnectionID id = ++lastID;
    const QueueRef sessionQueue = surroundings.queues.makeQueue("dev.pelorin.host.session");
    writeConnectionLog(fmt::format("admitted {} from {}", peer, connection->remoteAddress()));
    Record record;
    record.peer = peer;
    record.since = queue->now();
    record.helloTimeout = queue->after(helloTimeout, [this, id] {
        const auto found = pendingSessions.find(id);
        if (found != pendingSessions.end()) end(found->second, SessionEnd::neverSaidHello());
    });
    // What the making needs travels by value: the server may be gone when it is the session queue's turn.
    record.session = Confined<HostSession>(sessionQueue,
        [surroundings = surroundings, config = config, connection = std::move(connection), peer,
            sessionQueue]() mutable {
            return std::make_unique<HostSession>(
                surroundings, std::move(config), std::move(connection), std::move(peer), sessionQueue);
        });
    record.session.run([reporter = Reporter{this, id, queue, lifetime.watch()}](HostSession& session) {
        reporter.attachTo(session);
        session.start();
    });
    pendingSessions.emplace(id, std::move(record));
}

void HostServer::end(Record& record, SessionEnd how)
{
    record.session.run([how = std::move(how)](HostSession& session) mutable { session.end(std::move(how)); });
}

void HostServer::saidHello(ConnectionID id, const SessionFigures& figures)
{
    auto waiting = pendingSessions.extract(id);
    if (waiting.empty()) return;
    pendingEnd.cancel();
    if (activeSession) {
        const SessionEnd replaced = SessionEnd::replaced();
        end(activeSession->second, replaced);
        activeEnded(replaced.kind, replaced.reason);
    }
    activeSession.emplace(id, std::move(waiting.mapped()));
    Record& record = activeSession->second;
    record.helloTimeout.cancel();
    record.since = queue->now();
    record.figures = figures;
    log.info("session started: {}", record.peer);
    writeConnectionLog("session started: " + record.peer);
    publish(serverEvent::SessionStarted{record.peer});
}

void HostServer::updated(ConnectionID id, const SessionFigures& figures)
{
    if (!activeSession || activeSession->first != id) return;
    activeSession->second.figures = figures;
    publish(serverEvent::Stats{figures.line()});
}

void HostServer::optionsChanged(ConnectionID id, SessionOptions options)
{
    if (activeSession && activeSession->first == id) activeSession->second.options = options;
}

void HostServer::sessionClosed(ConnectionID id, EndKind kind, const std::string& reason)
{
    if (activeSession && activeSession->first == id) return activeEnded(kind, reason);
    const auto waiting = pendingSessions.extract(id);
    if (!waiting.empty()) waitingEnded(waiting.mapped(), reason);
}

void HostServer::activeEnded(EndKind kind, const std::string& reason)
{
    if (!activeSession) return;
    const Record record = std::move(activeSession->second);
    activeSession.reset();
    const std::chrono::duration<double> duration = queue->now() - record.since;
    log.info("session ended: {}: {}", record.peer, reason);
    writeConnectionLog(
        fmt::format("session ended after {:.1f} s: {}: {}", duration.count(), record.peer, reason));
    publish(serverEvent::SessionEnded{record.peer, reason});
    lockAfter(kind, record.options);
}

void HostServer::waitingEnded(const Record& record, const std::string& reason)
{
    log.info("closed before hello: {}: {}", record.peer, reason);
    writeConnectionLog(fmt::format("closed before hello: {}: {}", record.peer, reason));
}

void HostServer::lockAfter(EndKind kind, SessionOptions options)
{
    const LockRule rule = lockRuleFor(kind, options);
    pendingEndLocks = rule != LockRule::never;
    if (rule == LockRule::atOnce) pendingEndFired();
    if (rule == LockRule::afterGrace) pendingEnd = queue->after(lockGrace, [this] { pendingEndFired(); });
}

void HostServer::pendingEndFired()
{
    if (std::exchange(pendingEndLocks, false) && onLockWanted) onLockWanted();
}

bool HostServer::disconnect()
{
    queue->assertCurrent();
    if (!activeSession) return false;
    const SessionEnd onMac = SessionEnd::onMac();
    end(activeSession->second, onMac);
    activeEnded(onMac.kind, onMac.reason);
    return true;
}

HostServer::Status HostServer::status() const
{
    Status status;
    if (listener && boundAddress) status.listening = fmt::format("{}:{}", *boundAddress, listener->port());
    status.port = listener ? listener->port() : 0;
    if (activeSession) status.session = activeSession->second.figures;
    status.waitingForHello = pendingSessions.size();
    return status;
}

void HostServer::publish(ServerEvent event)
{
    if (onEvent) onEvent(std::move(event));
}

void HostServer::writeConnectionLog(std::string line)
{
    if (onConnectionLog) onConnectionLog(std::move(line));
}

} // namespace pelorin
