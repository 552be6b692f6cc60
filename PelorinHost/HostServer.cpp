#include "PelorinHost/HostServer.h"

#include "PelorinHost/Session/HelloExchange.h"
#include "PelorinHost/Session/LockRule.h"
#include "PelorinHost/Trust/OwnTailnetAddress.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto refreshPeriod = 5s;
constexpr auto lockGrace = 10s; // in which a phone that dropped out may come back
constexpr auto optionsGrace = 2s; // in which a phone that comes back says again that it wants dark panels

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
        session.onHello = [*this](HostSession& accepted) {
            report(&HostServer::saidHello, accepted.figures(), accepted.peerIdentity());
        };
        session.onStats = [*this](const SessionFigures& figures) { report(&HostServer::updated, figures); };
        session.onOptionsChanged
            = [*this](HostSession& changed) { report(&HostServer::optionsChanged, changed.options); };
        session.onClose = [*this](HostSession& ended, const std::optional<std::string>& reason) {
            report(&HostServer::sessionClosed, ended.endKind, reason, ended.tlsFailed);
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

HostServer::HostServer(SessionSurroundings newSurroundings, HostConfig newConfig, Listen newListen,
    QueueRef newQueue, std::optional<RemoteEntrance::Means> newRemote)
    : surroundings(std::move(newSurroundings)),
      config(std::move(newConfig)),
      listen(std::move(newListen)),
      queue(std::move(newQueue)),
      remoteMeans(std::move(newRemote)),
      admission(surroundings.platform.system(), queue, config)
{
    admission.onAllowedLogins
        = [this](std::vector<std::string> names) { publish(serverEvent::AllowedLogins{std::move(names)}); };
    admission.onConnectionLog = [this](std::string line) { writeConnectionLog(std::move(line)); };
}

HostServer::~HostServer() = default;

void HostServer::start()
{
    queue->assertCurrent();
    keysWatch = surroundings.pairing.onDidChange(queue, [this] { keysChanged(); });
    timer = queue->every(refreshPeriod, [this] { refresh(); });
    refresh();
    if (remoteMeans) openRemoteEntrance();
}

void HostServer::openRemoteEntrance()
{
    remoteEntrance = std::make_unique<RemoteEntrance>(
        surroundings, config, *std::exchange(remoteMeans, std::nullopt), queue);
    remoteEntrance->onStream = [this](std::unique_ptr<Channel> channel, const std::string& phoneName) {
        acceptRemote(std::move(channel), phoneName);
    };
    remoteEntrance->onRefused = [this](const std::string& reason) { reject("远程手机", reason, reason); };
    remoteEntrance->onRegistration = [this] {
        const bool isRegistered = remoteEntrance->registeredAs().has_value();
        publish(serverEvent::Rendezvous{
            isRegistered ? std::optional("已登记到 " + config.rendezvousURL) : std::nullopt});
    };
}

bool HostServer::stop()
{
    queue->assertCurrent();
    timer.cancel();
    keysWatch.cancel();
    listener.reset();
    // Its paths stay: the last message still goes over them.
    if (remoteEntrance) remoteEntrance->onStream = nullptr;
    asking.clear();
    const bool hadPhone = activeSession || !pendingSessions.empty();
    for (auto& [id, record] : pendingSessions) end(record, SessionEnd::onMac());
    pendingSessions.clear();
    disconnect();
    return hadPhone;
}

void HostServer::refresh()
{
    if (!isTestMode()) {
        tailnetAddress = ownTailnetAddress(surroundings.platform.system().interfaceAddresses());
        admission.setOwnAddress(tailnetAddress);
    }
    if (keysGeneration != boundKeysGeneration) renewKeys();
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

std::optional<std::string> HostServer::bindAddress() const
{
    return isTestMode() ? loopbackAddress : tailnetAddress;
}

// A phone that was just paired connects at once, and one that was removed is to be gone.
void HostServer::keysChanged()
{
    ++keysGeneration;
    refresh();
    endRemoved();
}

// The connections to come are secured with the new keys; the socket can stay, and with it whoever is just
// connecting.
void HostServer::renewKeys()
{
    boundKeysGeneration = keysGeneration;
    if (requiresPairing()) keys = PelorinTLS::parameters(surroundings.pairing.keys());
}

void HostServer::endRemoved()
{
    if (!activeSession || !activeSession->second.identity.starts_with(PelorinTLS::devicePrefix)) return;
    const auto devices = surroundings.pairing.devices();
    const auto isActive = [&](const auto& device) { return device.id == activeSession->second.identity; };
    if (std::ranges::any_of(devices, isActive)) return;
    const SessionEnd removed = SessionEnd::removed();
    end(activeSession->second, removed);
    activeEnded(removed.kind, removed.reason);
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
    if (isTestMode()) return acceptLoopback(std::move(connection));
    acceptTailnet(std::move(connection));
}

void HostServer::acceptLoopback(std::unique_ptr<Channel> connection)
{
    if (!isLoopback(connection->remoteAddress()))
        return refuse(std::move(connection), "测试模式只接受本机连接");
    makeRoom();
    std::string source = connection->remoteAddress();
    addSession(std::move(connection), "本机（测试模式）", std::move(source));
}

void HostServer::acceptRemote(std::unique_ptr<Channel> connection, std::string phoneName)
{
    queue->assertCurrent();
    makeRoom();
    std::string path = connection->pathDescription();
    addSession(std::move(connection), std::move(phoneName), std::move(path));
}

void HostServer::acceptTailnet(std::unique_ptr<Channel> connection)
{
    const std::string source = connection->remoteAddress();
    // Not a word for these: a flood must cost us less than the flooder.
    if (penalties.blockedFor(source, queue->now()) || !penalties.openPending(source)) return;
    std::shared_ptr<void> place(nullptr, [this, source](void*) { penalties.closePending(source); });
    if (const auto refusal = admission.refusalWithoutAsking(source)) {
        refuse(secured(std::move(connection)), *refusal);
        return penalize(source, SourcePenalties::Offence::refused);
    }
    makeRoom();
    const ConnectionID id = ++lastID;
    auto question = admission.ask(
        source, [this, id](const TailnetAdmission::Verdict& verdict) { judged(id, verdict); });
    asking.emplace(id, Asking{std::move(connection), std::move(place), std::move(question)});
}

void HostServer::judged(ConnectionID id, const TailnetAdmission::Verdict& verdict)
{
    auto found = asking.extract(id);
    if (found.empty()) return;
    Asking& judgedOne = found.mapped();
    auto connection = secured(std::move(judgedOne.connection));
    const std::string source = connection->remoteAddress();
    if (verdict) return addSession(std::move(connection), *verdict, source, std::move(judgedOne.place));
    refuse(std::move(connection), verdict.error());
    penalize(source, SourcePenalties::Offence::refused);
}

std::unique_ptr<Channel> HostServer::secured(std::unique_ptr<Channel> connection) const
{
    return keys ? PelorinTLS::serverChannel(std::move(connection), keys) : std::move(connection);
}

void HostServer::refuse(std::unique_ptr<Channel> connection, const std::string& reason)
{
    const std::string peer = connection->remoteAddress();
    log.warning("rejected {}: {}", peer, reason);
    reject(peer, reason, reason);
    connection->start(queue);
    connection->send(encodeFrame(message::Error{ErrorCode::unauthorized, reason}));
    connection->finish();
}

void HostServer::reject(const std::string& peer, const std::string& logged, const std::string& shown)
{
    writeConnectionLog(fmt::format("rejected {}: {}", peer, logged));
    publish(serverEvent::Rejected{fmt::format("{}：{}", peer, shown)});
}

void HostServer::penalize(const std::string& source, SourcePenalties::Offence offence)
{
    if (isTestMode()) return;
    const SteadyTime now = queue->now();
    penalties.penalize(source, offence, now);
    const auto blocked = penalties.blockedFor(source, now);
    if (!blocked) return;
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(*blocked).count();
    log.warning("{} is turned away for {} s", source, seconds);
    writeConnectionLog(fmt::format("turned away for {} s: {}", seconds, source));
}

// The oldest goes: it has had the most time, and a phone that comes now shall not be kept out by those who
// only hold a place.
void HostServer::makeRoom()
{
    if (waitingCount() < maxPendingSessions) return;
    if (pendingSessions.empty()) {
        asking.erase(asking.begin());
        return;
    }
    auto oldest = pendingSessions.extract(pendingSessions.begin());
    end(oldest.mapped(), SessionEnd::tooManyWaiting());
    waitingEnded(oldest.mapped(), SessionEnd::tooManyWaiting().reason);
}

void HostServer::addSession(
    std::unique_ptr<Channel> connection, std::string peer, std::string source, std::shared_ptr<void> place)
{
    const ConnectionID id = ++lastID;
    const QueueRef sessionQueue = surroundings.queues.makeQueue("dev.pelorin.host.session");
    writeConnectionLog(fmt::format("admitted {} from {}", peer, source));
    Record record;
    record.peer = peer;
    record.source = std::move(source);
    record.place = std::move(place);
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

void HostServer::saidHello(ConnectionID id, const SessionFigures& figures, const std::string& identity)
{
    auto waiting = pendingSessions.extract(id);
    if (waiting.empty()) return;
    waiting.mapped().identity = identity;
    waiting.mapped().place.reset();
    if (!identity.empty()) penalties.clear(waiting.mapped().source);
    resumeFromPendingEnd();
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

// Panels that were kept dark meanwhile stay so until the phone has had time to ask for it once more: they
// would light up in between, for everybody to read.
void HostServer::resumeFromPendingEnd()
{
    pendingEnd.cancel();
    pendingEndLocks = false;
    if (!activeSession && isPrivate) pendingEnd = queue->after(optionsGrace, [this] { updatePrivacy(); });
}

void HostServer::updated(ConnectionID id, const SessionFigures& figures)
{
    if (!activeSession || activeSession->first != id) return;
    activeSession->second.figures = figures;
    publish(serverEvent::Stats{figures.line()});
}

void HostServer::optionsChanged(ConnectionID id, SessionOptions options)
{
    if (!activeSession || activeSession->first != id) return;
    activeSession->second.options = options;
    updatePrivacy();
}

void HostServer::sessionClosed(
    ConnectionID id, EndKind kind, const std::optional<std::string>& reason, bool tlsFailed)
{
    if (activeSession && activeSession->first == id) return activeEnded(kind, reason.value_or("closed"));
    const auto waiting = pendingSessions.extract(id);
    if (waiting.empty()) return;
    const Record& record = waiting.mapped();
    if (tlsFailed) return handshakeFailed(record, reason);
    if (kind == EndKind::paired) return writeConnectionLog(reason.value_or("paired"));
    waitingEnded(record, reason.value_or("closed"));
    if (kind == EndKind::dropped) penalize(record.source, SourcePenalties::Offence::noHello);
}

void HostServer::handshakeFailed(const Record& record, const std::optional<std::string>& reason)
{
    log.warning("rejected {}: {}", record.peer, reason.value_or("TLS"));
    reject(record.peer, reason.value_or("TLS"), "TLS 认证失败（未配对）");
    penalize(record.source, SourcePenalties::Offence::handshakeFailed);
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
    updatePrivacy();
}

// As the phone in control wants it. Without one the panels show what they show, but those that are dark not
// before a desktop that is to be locked is.
void HostServer::updatePrivacy()
{
    const bool isLockComing = pendingEndLocks || locksUnderWay > 0;
    const bool isWanted = activeSession ? activeSession->second.options.contains(sessionOption::privacyScreen)
                                        : isPrivate && isLockComing;
    if (isWanted == isPrivate) return;
    isPrivate = isWanted;
    if (!privacyScreen) {
        const auto privacyQueue = surroundings.queues.makeQueue("dev.pelorin.host.privacy");
        privacyScreen = Confined<PrivacyScreen>(
            privacyQueue, [&displays = surroundings.platform.displays(), privacyQueue] {
                return std::make_unique<PrivacyScreen>(displays, privacyQueue);
            });
    }
    privacyScreen.run([isWanted](PrivacyScreen& screen) { screen.setEnabled(isWanted); });
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
    if (std::exchange(pendingEndLocks, false)) lock();
}

// On a queue of its own, since a display server that does not answer may hold the attempt up.
void HostServer::lock()
{
    if (!screenLock) {
        const QueueRef lockQueue = surroundings.queues.makeQueue("dev.pelorin.host.lock");
        screenLock = Confined<ScreenLock>(lockQueue,
            [&platform = surroundings.platform, lockQueue] { return platform.makeScreenLock(lockQueue); });
    }
    ++locksUnderWay;
    screenLock.run([this, alive = lifetime.watch(), queue = queue](ScreenLock& locking) {
        locking.lock([this, alive, queue](LockedBy by) {
            queue->post([this, alive, by] {
                if (alive) locked(by);
            });
        });
    });
}

void HostServer::locked(LockedBy by)
{
    --locksUnderWay;
    writeConnectionLog(lockedText(by));
    updatePrivacy();
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
    status.tailnetAddress = tailnetAddress;
    status.dnsName = admission.ownDNSName();
    if (activeSession) status.session = activeSession->second.figures;
    status.waitingForHello = waitingCount();
    if (remoteEntrance) status.hostID = remoteEntrance->registeredAs();
    status.blockedSources = penalties.blockedCount(queue->now());
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
