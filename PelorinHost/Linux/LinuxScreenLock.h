#pragma once

#include "PelorinHost/Linux/DBusConnection.h"
#include "PelorinHost/Platform/EventPosting.h"
#include "PelorinHost/Platform/ScreenLock.h"
#include "PelorinNet/Log.h"

#include <memory>
#include <string>
#include <vector>

namespace pelorin {

// Asks those who can lock a Linux desktop, one after the other, until one says that it is locked: the login
// manager, which passes it on to whatever locker the session has, then the lockers that desktops bring along.
// That a call succeeds says little (the login manager's does when nobody listens), so each is asked for the
// state afterwards. Where none confirms, the shortcut is pressed. Queue: its owner's.
class LinuxScreenLock final : public ScreenLock {
public:
    using MakeEventPosting = std::function<std::unique_ptr<EventPosting>()>;

    LinuxScreenLock(QueueRef queue, MakeEventPosting makeEventPosting, DBusAddresses buses = {});
    ~LinuxScreenLock() override;

    void lock(std::function<void(LockedBy)> done) override;

private:
    void tryLocker();
    void askWhetherLocked();
    void giveUpOn(const std::string& reason);
    void pressShortcut();
    void finish(LockedBy by);

    const QueueRef queue;
    const MakeEventPosting makeEventPosting;
    const DBusAddresses buses;
    const Log log{"lock"};
    std::vector<std::function<void(LockedBy)>> waiting; // for the attempt under way
    std::size_t locker = 0; // the one being asked
    int attempt = 0; // raised whenever what was asked is settled; replies to an earlier one are stale
    std::unique_ptr<EventPosting> posting; // of the last shortcut, which may still be on its way
    std::unique_ptr<DBusConnection> connection;
    DBusConnection::Bus connectedTo{};
    Subscription patience; // with the one being asked
    Subscription next;
};

} // namespace pelorin
