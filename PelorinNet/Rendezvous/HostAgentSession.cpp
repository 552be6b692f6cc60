#include "PelorinNet/Rendezvous/HostAgentSession.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr auto firstStreamTimeout = 30s;
constexpr Duration lingering = 1s; // of a path, for the last words of QUIC

} // namespace

HostAgent::Session::Session(Origin newOrigin, QueueRef agentQueue, QueueRef newPathQueue,
    std::move_only_function<std::unique_ptr<PathSetup>()> makePath)
    : origin(std::move(newOrigin)),
      queue(std::move(agentQueue)),
      pathQueue(std::move(newPathQueue)),
      setup(pathQueue, std::move(makePath))
{
}

HostAgent::Session::~Session()
{
    connections.clear();
    queue->postAfter(lingering, [setup = std::move(setup)] {});
}

template <class Work>
auto HostAgent::Session::here(const Work& work)
{
    return [work, queue = queue, alive = lifetime.watch()](auto... values) {
        queue->post([work, alive, ... values = std::move(values)]() mutable {
            if (alive) work(std::move(values)...);
        });
    };
}

// The path

void HostAgent::Session::open(
    std::uint16_t listenerPort, const std::function<void(Result<PathDescription, NetError>)>& done)
{
    const auto opened = here([this, done](std::uint16_t newPort, const PathDescription& local) {
        port = newPort;
        done(local);
    });
    const auto failed = here([done](const NetError& error) { done(std::unexpected(error)); });
    const auto changed = here([this](const std::string& newLabel) { pathChanged(newLabel); });
    setup.run([opened, failed, changed, label = label, listenerPort](PathSetup& running) {
        const auto result = running.open();
        if (!result) return failed(result.error());
        running.setQuicEndpoint(SocketAddress::ipv4({127, 0, 0, 1}, listenerPort));
        running.onPathChange = [label, changed](const std::string& newLabel) {
            label->change(newLabel);
            changed(newLabel);
        };
        opened(running.localPort(), running.local());
    });
}

void HostAgent::Session::start(PathDescription remote, std::optional<TurnCredentials> turn)
{
    const auto ready = here([this](const Result<std::string, NetError>& newLabel) { pathReady(newLabel); });
    const SignalPipe pipe{here([this](json data) {
                              if (onSignal) onSignal(std::move(data));
                          }),
        inbox};
    setup.run([remote = std::move(remote), turn = std::move(turn), pipe, ready](PathSetup& running) mutable {
        running.start(std::move(remote), std::move(turn), pipe, ready);
    });
}

void HostAgent::Session::renewCredentials(RendezvousSocketMaker makeSocket, std::string url)
{
    renewal = std::make_unique<CredentialRenewal>(queue, std::move(makeSocket), std::move(url));
    renewal->onFresh = [this](const TurnCredentials& fresh) {
        setup.run([fresh](PathSetup& running) { running.renewCredentials(fresh); });
    };
}

void HostAgent::Session::deliver(json data)
{
    inbox->deliver(std::move(data));
}

void HostAgent::Session::networkChanged()
{
    setup.run([](PathSetup& running) { running.networkChanged(); });
}

void HostAgent::Session::pathReady(const Result<std::string, NetError>& result)
{
    const std::string& name = origin.phone.name;
    if (!result) {
        log.warning("{}: path setup failed: {}", name, result.error().description);
        return endWith("Mac 这边建立路径失败：" + result.error().description);
    }
    log.info("{}: path ready ({})", name, *result);
    if (label->get().empty()) label->change(*result); // a change may have come before us
    path = label->get();
    if (!streamArrived) {
        patience = queue->after(firstStreamTimeout, [this] {
            log.warning("{}: no session within {} s, closing the path", origin.phone.name,
                std::chrono::seconds(firstStreamTimeout).count());
            endWith(std::nullopt);
        });
    }
    const auto alive = lifetime.watch();
    for (auto& channel : std::exchange(waitingStreams, {}))
        if (alive) handOver(std::move(channel));
}

void HostAgent::Session::pathChanged(const std::string& newLabel)
{
    log.info("{}: path switched to {}", origin.phone.name, newLabel);
    path = newLabel;
    for (const auto& connection : connections) connection->pathChanged();
}

// What comes over it

void HostAgent::Session::adopt(std::unique_ptr<PelorinQUIC::Connection> newConnection)
{
    PelorinQUIC::Connection& connection = *connections.emplace_back(std::move(newConnection));
    connection.onStream = [this](std::unique_ptr<Channel> channel) { streamCame(std::move(channel)); };
    connection.onLastStreamEnd = [this, of = &connection] { closed(of); };
    connection.onClosed = [this, of = &connection](const std::optional<NetError>& error) {
        if (error) log.info("{}: {}", origin.phone.name, error->description);
        closed(of);
    };
}

void HostAgent::Session::streamCame(std::unique_ptr<Channel> channel)
{
    streamArrived = true;
    patience.cancel();
    if (!path) {
        waitingStreams.push_back(std::move(channel));
        return;
    }
    handOver(std::move(channel));
}

void HostAgent::Session::handOver(std::unique_ptr<Channel> channel)
{
    if (onStream) onStream(onPath(std::move(channel), label, origin.phone.id));
}

// Closed, or without a stream any more. A phone whose connection ended before its first stream may come
// again.
void HostAgent::Session::closed(const PelorinQUIC::Connection* connection)
{
    std::erase_if(connections, [&](const auto& each) { return each.get() == connection; });
    if (connections.empty() && streamArrived) endWith(std::nullopt);
}

void HostAgent::Session::endWith(std::optional<std::string> error)
{
    patience.cancel();
    if (onEnd) std::exchange(onEnd, nullptr)(std::move(error));
}

} // namespace pelorin
