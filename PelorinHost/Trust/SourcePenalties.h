#pragma once

#include "PelorinCore/Access/IPAddress.h"
#include "PelorinNet/Queue/SerialQueue.h"

#include <map>
#include <optional>
#include <string>

namespace pelorin {

// Which sources have worn out our patience. Each offence costs its source some seconds, which time pays back;
// when more than a few are owed the source is turned away until nothing is owed any more. After every such
// block offences cost double, until the source has kept quiet for a while. Counts the connections, too, that
// a source has open and that have not said hello.
class SourcePenalties {
public:
    enum class Offence {
        handshakeFailed, // its secure channel did not come up: no key, or a wrong one
        refused, // not a tailnet address, not on the list
        noHello, // let its time run out
    };

    // source: the remote address as text.
    void penalize(const std::string& source, Offence offence, SteadyTime now);
    // For how long it is turned away; nothing while it is welcome.
    std::optional<Duration> blockedFor(const std::string& source, SteadyTime now) const;
    void clear(const std::string& source); // a paired phone has logged in

    // False, and nothing opened, when the source has too many open.
    bool openPending(const std::string& source);
    void closePending(const std::string& source); // of each that was opened: it said hello, or ended

    // For the status.
    std::size_t blockedCount(SteadyTime now) const;
    std::size_t knownCount() const { return debts.size(); }

    static constexpr std::size_t maxKnown = 1024;
    static constexpr std::size_t maxPending = 4;
    static constexpr std::chrono::seconds threshold{15}; // owed more than this, a source is turned away
    static constexpr std::chrono::minutes longest{10}; // more would lock out who has mended the fault
    static constexpr std::chrono::minutes remembered{10}; // after all is paid back

private:
    struct Debt {
        SteadyTime until; // when all is paid back
        bool isBlocked = false; // until then
        int earlierBlocks = 0;
    };
    static bool isForgotten(const Debt& debt, SteadyTime now) { return debt.until + remembered <= now; }
    void forgetOne(SteadyTime now);

    std::map<std::string, Debt> debts; // by source
    std::map<std::string, std::size_t> pending;
};

} // namespace pelorin
