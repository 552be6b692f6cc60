#include "PelorinViewer/PairingRun.h"

#include "PelorinCore/Label.h"
#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinPhone/Pairing/PairingExchange.h"
#include "PelorinViewer/HostList.h"
#include "PelorinViewer/OwnName.h"

#include <algorithm>
#include <future>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Outcome = Result<PairedHost, ViewerResult>;

constexpr Duration connectTimeout = 5s; // each for the address and the name

ViewerResult resultOf(ViewerExit exit, std::string text)
{
    return {exit, std::move(text), {}};
}

ViewerExit exitFor(PairingExchange::Failure::Kind kind)
{
    switch (kind) {
    case PairingExchange::Failure::Kind::cannotConnect:
        return ViewerExit::cannotConnect;
    case PairingExchange::Failure::Kind::refused:
        return ViewerExit::refused;
    case PairingExchange::Failure::Kind::lost:
        break;
    }
    return ViewerExit::lost;
}

ViewerExit exitFor(PhoneConnector::Failure::Kind kind)
{
    switch (kind) {
    case PhoneConnector::Failure::Kind::serviceUnreachable:
    case PhoneConnector::Failure::Kind::hostOffline:
    case PhoneConnector::Failure::Kind::noPath:
        return ViewerExit::cannotConnect;
    case PhoneConnector::Failure::Kind::refused:
        return ViewerExit::refused;
    case PhoneConnector::Failure::Kind::wrongHost:
    case PhoneConnector::Failure::Kind::lost:
        break;
    }
    return ViewerExit::lost;
}

// Made, used and destroyed on its queue.
class Pairing {
public:
    Pairing(QueuePool& newPool, QueueRef newQueue, PairingOffer newOffer,
        std::shared_ptr<const DeviceIdentity> newIdentity)
        : pool(newPool),
          queue(std::move(newQueue)),
          offer(std::move(newOffer)),
          identity(std::move(newIdentity))
    {
    }

    std::function<void(Outcome)> onDone; // once; may destroy us

    void start()
    {
        if (!offer.remote) return pairOverTailnet();
        if (!offer.tailnet) return pairThroughService();
        probe = connectTcp(pool, queue, offer.tailnet->address, offer.tailnet->port, tailnetHeadStart,
            [this](const Result<std::unique_ptr<Channel>, NetError>& answer) {
                answer ? pairOverTailnet() : pairThroughService();
            });
    }

private:
    void pairOverTailnet()
    {
        const auto connectTo = [this](std::string host, std::uint16_t port, Connected connected) {
            return connectTcp(pool, queue, std::move(host), port, connectTimeout, std::move(connected));
        };
        exchange = std::make_unique<PairingExchange>(queue, connectTo, *offer.tailnet, ownName());
        exchange->onDone = [this](Result<PairedHost, PairingExchange::Failure> done) {
            if (!done)
                return onDone(std::unexpected(resultOf(exitFor(done.error().kind), done.error().text)));
            onDone(std::move(*done));
        };
        exchange->start();
    }

    void pairThroughService()
    {
        const RemotePairingLink& link = *offer.remote;
        const RemotePlace place{link.hostID, link.fingerprint, link.service};
        connector = std::make_unique<PhoneConnector>(queue,
            PhoneConnector::Means{pool, *identity, rendezvousSockets(pool)}, place,
            PhoneConnector::Pairing{link.code, ownName()});
        connector->onDone = [this, place](Result<PhoneConnector::Reached, PhoneConnector::Failure> done) {
            if (!done)
                return onDone(std::unexpected(resultOf(exitFor(done.error().kind), done.error().text)));
            const std::string& name = done->hostName.empty() ? offer.remote->hostName : done->hostName;
            onDone(PairedHost{asLabel(name), {}, {}, place});
        };
        connector->start();
    }

    QueuePool& pool;
    const QueueRef queue;
    const PairingOffer offer;
    const std::shared_ptr<const DeviceIdentity> identity; // for the service
    Subscription probe;
    std::unique_ptr<PairingExchange> exchange;
    std::unique_ptr<PhoneConnector> connector;
};

Outcome run(const PairingOffer& offer, const std::shared_ptr<const DeviceIdentity>& identity,
    const EndSignals& signals)
{
    std::promise<Outcome> done;
    std::unique_ptr<Pairing> running; // on the queue, and destroyed after it is gone
    Subscription signalWatch; // likewise
    QueuePool pool(1);
    const QueueRef queue = pool.makeQueue("dev.pelorin.phone.pairing");
    queue->post([&] {
        const auto finish = [&](Outcome outcome) {
            signalWatch.cancel();
            done.set_value(std::move(outcome));
            running.reset();
        };
        running = std::make_unique<Pairing>(pool, queue, offer, identity);
        running->onDone = [finish](Outcome outcome) { finish(std::move(outcome)); };
        signalWatch = queue->whenReadable(
            signals.descriptor, [finish] { finish(std::unexpected(resultOf(ViewerExit::lost, "ended"))); });
        running->start();
    });
    return done.get_future().get();
}

} // namespace

PairedHost withKnownWays(PairedHost paired, const PairingOffer& offer, const std::vector<PairedHost>& known)
{
    const auto isOffered = [&](const PairedHost& host) {
        const bool sharesRemote = host.remote && offer.remote && host.remote->hostID == offer.remote->hostID
            && host.remote->fingerprint == offer.remote->fingerprint;
        const bool sharesTailnet = host.hasTailnet() && offer.tailnet
            && host.place.address == offer.tailnet->address && host.place.port == offer.tailnet->port;
        return sharesRemote || sharesTailnet;
    };
    for (const PairedHost& host : known) {
        if (!isOffered(host)) continue;
        if (!paired.remote) paired.remote = host.remote;
        if (!paired.hasTailnet()) {
            paired.place = host.place;
            paired.key = host.key;
        }
    }
    return paired;
}

Result<PairedHost, ViewerResult> pairWith(
    const PairingOffer& offer, const PairedHosts& hosts, const EndSignals& signals)
{
    // Before the link is used up: what it brings could not be kept.
    const auto known = hosts.list();
    if (!known) return std::unexpected(resultOf(ViewerExit::failed, known.error()));
    std::shared_ptr<const DeviceIdentity> identity;
    if (offer.remote) {
        const auto own = ownIdentity();
        if (!own) return std::unexpected(resultOf(ViewerExit::failed, own.error()));
        identity = *own;
    }
    auto paired = run(offer, identity, signals);
    if (!paired) return paired;
    *paired = withKnownWays(std::move(*paired), offer, *known);
    if (const auto kept = hosts.add(*paired); !kept)
        return std::unexpected(resultOf(ViewerExit::failed, kept.error()));
    return paired;
}

} // namespace pelorin
