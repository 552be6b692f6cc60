#pragma once

#include "PelorinHost/Screen/VirtualDisplayManager.h"
#include "PelorinNet/Queue/Confined.h"

namespace pelorin {

// The display made for one session's phone, while that asks for one. Queue: the session's; the making itself
// has a queue of its own, as it takes a while. Released with this. Owned by the HostSession.
class PhoneDisplay {
public:
    // Without a manager there is never one.
    PhoneDisplay(std::shared_ptr<Confined<VirtualDisplayManager>> manager, QueueRef queue);
    ~PhoneDisplay();

    // Has it made in this size, or taken away; then done, unless something else is wanted by then. At once
    // when there is nothing to do.
    void want(std::optional<PointSize> size, std::function<void()> done);
    std::optional<std::uint32_t> id() const { return displayID; } // nothing when there is none

private:
    void release(std::function<void()> done);
    void settled(int wish, std::optional<std::uint32_t> newDisplayID, const std::function<void()>& done);
    template <class Report>
    auto here(Report report); // for the manager's queue, to report on ours

    std::shared_ptr<Confined<VirtualDisplayManager>> manager;
    QueueRef queue;
    const VirtualDisplayManager::Owner displayOwner;
    int wishes = 0;
    bool isAsked = false; // the manager was, and not released since
    std::optional<std::uint32_t> displayID;
    Lifetime lifetime;
};

} // namespace pelorin
