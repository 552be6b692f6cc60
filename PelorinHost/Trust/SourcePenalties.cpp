#include "PelorinHost/Trust/SourcePenalties.h"

#include "PelorinCore/Access/Tailnet.h"

#include <algorithm>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Offence = SourcePenalties::Offence;

constexpr int maxDoublings = 7; // by then one offence costs the longest block
constexpr int networkBits = 64; // what one customer or one home gets of IPv6, to choose addresses from

Duration costOf(Offence offence)
{
    switch (offence) {
    // A phone that was removed here tries its old key a few times before its user looks; guessing a 32-byte
    // key is hopeless, so this only has to keep the noise down.
    case Offence::handshakeFailed:
        return 5s;
    // Costs us a run of a tool, and will end the same way the next time.
    case Offence::refused:
        return 5s;
    // Held one of few places for its whole time. A phone that falls asleep in its hello does so, too.
    case Offence::noHello:
        return 10s;
    }
    return 10s;
}

// Tailscale gives every device of every tailnet an address under one prefix, so there an address is a device.
// Text that is no address, such as one with a zone, stands for itself.
std::string keyOf(const std::string& source)
{
    const auto address = IPAddress::parse(source);
    if (!address) return source.substr(0, 64);
    const bool isOneDevice = address->isIPv4() || Tailnet::contains(*address);
    return isOneDevice ? address->text() : address->masked(networkBits).text() + "/64";
}

} // namespace

void SourcePenalties::penalize(const std::string& source, Offence offence, SteadyTime now)
{
    const auto key = keyOf(source);
    if (!debts.contains(key) && debts.size() >= maxKnown) forgetOne(now);
    auto& debt = debts[key];
    if (isForgotten(debt, now)) debt = {};
    if (debt.until <= now) debt = {now, false, std::min(debt.earlierBlocks + debt.isBlocked, maxDoublings)};
    debt.until = std::min(debt.until + costOf(offence) * (1 << debt.earlierBlocks), now + longest);
    debt.isBlocked = debt.isBlocked || debt.until - now > threshold;
}

std::optional<Duration> SourcePenalties::blockedFor(const std::string& source, SteadyTime now) const
{
    const auto debt = debts.find(keyOf(source));
    if (debt == debts.end() || !debt->second.isBlocked || debt->second.until <= now) return std::nullopt;
    return debt->second.until - now;
}

void SourcePenalties::clear(const std::string& source)
{
    debts.erase(keyOf(source));
}

bool SourcePenalties::openPending(const std::string& source)
{
    auto& count = pending[keyOf(source)];
    if (count >= maxPending) return false;
    ++count;
    return true;
}

void SourcePenalties::closePending(const std::string& source)
{
    const auto found = pending.find(keyOf(source));
    if (found != pending.end() && --found->second == 0) pending.erase(found);
}

std::size_t SourcePenalties::blockedCount(SteadyTime now) const
{
    return static_cast<std::size_t>(std::ranges::count_if(
        debts, [&](const auto& entry) { return entry.second.isBlocked && entry.second.until > now; }));
}

// Those who have kept quiet, or else the one that owes least: it is the next to be forgotten anyway.
void SourcePenalties::forgetOne(SteadyTime now)
{
    if (std::erase_if(debts, [&](const auto& entry) { return isForgotten(entry.second, now); }) > 0) return;
    debts.erase(std::ranges::min_element(debts, {}, [](const auto& entry) { return entry.second.until; }));
}

} // namespace pelorin
