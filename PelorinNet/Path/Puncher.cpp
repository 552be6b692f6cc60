#include "PelorinNet/Path/Puncher.h"

#include "PelorinNet/Channel/CallOut.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr Duration roundPeriod = 50ms;
constexpr std::size_t maxTargets = 32;
constexpr std::size_t maxOutstanding = 2'048; // three seconds of rounds to the most targets
constexpr std::string_view revealedType = "prflx";

} // namespace

Puncher::Puncher(DatagramProxy& newProxy, QueueRef newQueue, MayCheck newMayCheck)
    : proxy(newProxy),
      queue(std::move(newQueue)),
      mayCheck(std::move(newMayCheck))
{
}

void Puncher::start(const std::vector<Candidate>& newTargets, SteadyTime deadline, Completion newCompletion)
{
    queue->assertCurrent();
    end();
    selectedTarget.reset();
    outstanding.clear();
    sentOrder.clear();
    const auto former = std::exchange(targets, {});
    for (const Candidate& target : newTargets) add(target);
    for (const Candidate& target : former)
        if (target.type == revealedType) add(target);

    completion = std::move(newCompletion);
    rounds = queue->every(roundPeriod, [this] { checkAll(); });
    expiry = queue->after(std::max(Duration::zero(), deadline - queue->now()), [this] { stop(); });
    checkAll();
}

void Puncher::add(const Candidate& target)
{
    queue->assertCurrent();
    if (find(target.address)) return;
    // The latest word on where the peer is counts most.
    if (targets.size() == maxTargets) targets.erase(targets.begin());
    targets.push_back(target);
    if (completion) check(target.address);
}

void Puncher::stop()
{
    queue->assertCurrent();
    if (!completion) return;
    const auto finished = std::exchange(completion, nullptr);
    end();
    finished(std::nullopt);
}

void Puncher::checkAll()
{
    for (const Candidate& target : targets) check(target.address);
}

void Puncher::check(const SocketAddress& target)
{
    if (!remote || !mayCheck(target)) return;
    const auto id = StunMessage::newTransactionID();
    outstanding.emplace(id, target);
    sentOrder.push_back(id);
    if (sentOrder.size() > maxOutstanding) {
        outstanding.erase(sentOrder.front());
        sentOrder.pop_front();
    }
    ++sentCount;
    proxy.network().send(ConnectivityCheck::request(local, *remote, id), target);
}

void Puncher::handle(ByteView datagram, const SocketAddress& source)
{
    queue->assertCurrent();
    const auto message = StunMessage::parse(datagram);
    if (!remote || !message || message->method != StunMessage::Method::binding) return;
    if (message->messageClass == StunMessage::Class::request)
        answer(datagram, source, *remote);
    else if (message->messageClass == StunMessage::Class::success)
        handleAnswer(datagram, message->transactionID, source, *remote);
}

void Puncher::handleAnswer(ByteView datagram, const StunMessage::TransactionID& id,
    const SocketAddress& source, const PathCredentials& sender)
{
    const auto check = outstanding.extract(id);
    if (!check || check.mapped() != source || !ConnectivityCheck::isAnswer(datagram, sender)) return;
    ++answeredCount;
    if (completion) select(source);
}

void Puncher::answer(ByteView datagram, const SocketAddress& source, const PathCredentials& sender)
{
    const auto bytes = ConnectivityCheck::answer(datagram, source, local, sender);
    if (!bytes) return;
    proxy.network().send(*bytes, source);
    learn(source);
    callOut(onPeerCheck, lifetime.watch(), source);
}

void Puncher::learn(const SocketAddress& source)
{
    if (find(source) || !mayCheck(source)) return;
    // A peer whose address changes again and again is at the latest one.
    const auto oldest = std::ranges::find(targets, revealedType, &Candidate::type);
    if (targets.size() == maxTargets && oldest != targets.end()) targets.erase(oldest);
    if (targets.size() < maxTargets) targets.push_back({source, std::string(revealedType)});
}

void Puncher::select(const SocketAddress& address)
{
    const Candidate* const target = find(address);
    selectedTarget = target ? *target : Candidate{address, std::string(revealedType)};
    const auto finished = std::exchange(completion, nullptr);
    end();
    // Copies, because a callback may start the next search or destroy us.
    const auto alive = lifetime.watch();
    const Candidate selected = *selectedTarget;
    finished(selected);
    if (alive) callOut(onSelected, alive, selected);
}

void Puncher::end()
{
    completion = nullptr;
    rounds.cancel();
    expiry.cancel();
}

const Candidate* Puncher::find(const SocketAddress& address) const
{
    const auto found = std::ranges::find(targets, address, &Candidate::address);
    return found == targets.end() ? nullptr : &*found;
}

} // namespace pelorin
