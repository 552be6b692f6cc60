#include "PelorinViewer/PairingRun.h"

#include "PelorinNet/Channel/TcpChannel.h"
#include "PelorinPhone/Pairing/PairingExchange.h"
#include "PelorinViewer/OwnName.h"

#include <future>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Outcome = Result<PairedHost, PairingExchange::Failure>;

constexpr Duration connectTimeout = 5s; // each for the address and the name

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

Outcome exchange(const PairingLink& link, const EndSignals& signals)
{
    std::promise<Outcome> done;
    std::unique_ptr<PairingExchange> running; // on the queue, and destroyed after it is gone
    Subscription signalWatch; // likewise
    QueuePool pool(1);
    const QueueRef queue = pool.makeQueue("dev.pelorin.phone.pairing");
    const auto connectTo = [&pool, queue](std::string host, std::uint16_t port, Connected connected) {
        return connectTcp(pool, queue, std::move(host), port, connectTimeout, std::move(connected));
    };
    queue->post([&] {
        const auto finish = [&](Outcome outcome) {
            signalWatch.cancel();
            running.reset();
            done.set_value(std::move(outcome));
        };
        running = std::make_unique<PairingExchange>(queue, connectTo, link, ownName());
        running->onDone = finish;
        signalWatch = queue->whenReadable(signals.descriptor, [finish] {
            finish(std::unexpected(PairingExchange::Failure{PairingExchange::Failure::Kind::lost, "ended"}));
        });
        running->start();
    });
    return done.get_future().get();
}

} // namespace

Result<PairedHost, ViewerResult> pairWith(
    const PairingLink& link, const PairedHosts& hosts, const EndSignals& signals)
{
    // Before the link is used up: what it brings could not be kept.
    const auto known = hosts.list();
    if (!known) return std::unexpected(ViewerResult{ViewerExit::failed, known.error(), {}});
    auto paired = exchange(link, signals);
    if (!paired) return std::unexpected(ViewerResult{exitFor(paired.error().kind), paired.error().text, {}});
    if (const auto kept = hosts.add(*paired); !kept)
        return std::unexpected(ViewerResult{ViewerExit::failed, kept.error(), {}});
    return std::move(*paired);
}

} // namespace pelorin
