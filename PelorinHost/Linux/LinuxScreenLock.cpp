#include "PelorinHost/Linux/LinuxScreenLock.h"

#include <array>
#include <utility>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using Bus = DBusConnection::Bus;

constexpr auto longestPatience = 1500ms; // lockers draw their window first; longer would leave a desktop open
constexpr auto questionPeriod = 50ms;
constexpr std::uint16_t keyQ = 12;

struct Locker {
    Bus bus;
    DBusMethod lock;
    DBusMethod isLocked;
};

// "auto" is the session that we run in, or else the one that our user has on the display.
constexpr const char* login = "org.freedesktop.login1";
constexpr const char* loginSession = "/org/freedesktop/login1/session/auto";
constexpr const char* loginInterface = "org.freedesktop.login1.Session";

Locker desktopLocker(const char* name, const char* path)
{
    return {Bus::session, {name, path, name, "Lock"}, {name, path, name, "GetActive"}};
}

const std::array<Locker, 5>& lockers()
{
    static const std::array<Locker, 5> all{
        Locker{Bus::system, {login, loginSession, loginInterface, "Lock"},
            {login, loginSession, "org.freedesktop.DBus.Properties", "Get", {loginInterface, "LockedHint"}}},
        desktopLocker("org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver"),
        desktopLocker("org.gnome.ScreenSaver", "/org/gnome/ScreenSaver"),
        desktopLocker("org.mate.ScreenSaver", "/org/mate/ScreenSaver"),
        desktopLocker("org.xfce.ScreenSaver", "/org/xfce/ScreenSaver"),
    };
    return all;
}

} // namespace

LinuxScreenLock::LinuxScreenLock(
    QueueRef newQueue, MakeEventPosting newMakeEventPosting, DBusAddresses newBuses)
    : queue(std::move(newQueue)),
      makeEventPosting(std::move(newMakeEventPosting)),
      buses(std::move(newBuses))
{
}

LinuxScreenLock::~LinuxScreenLock() = default;

void LinuxScreenLock::lock(std::function<void(LockedBy)> done)
{
    queue->assertCurrent();
    waiting.push_back(std::move(done));
    if (waiting.size() > 1) return;
    locker = 0;
    next = queue->after(Duration::zero(), [this] { tryLocker(); });
}

void LinuxScreenLock::tryLocker()
{
    if (locker == lockers().size()) return pressShortcut();
    const auto& [bus, lock, isLocked] = lockers()[locker];
    if (!connection || connectedTo != bus) {
        auto opened = DBusConnection::open(bus, bus == Bus::system ? buses.system : buses.session, queue);
        if (!opened) return giveUpOn(opened.error().description);
        connection = std::move(*opened);
        connectedTo = bus;
    }
    patience = queue->after(longestPatience, [this] { giveUpOn("does not say that it is locked"); });
    connection->call(lock, [this, asked = ++attempt](const DBusConnection::Reply& reply) {
        if (asked != attempt) return; // it comes too late
        if (!reply) return giveUpOn(reply.error().description);
        askWhetherLocked();
    });
}

void LinuxScreenLock::askWhetherLocked()
{
    connection->call(lockers()[locker].isLocked, [this, asked = attempt](const DBusConnection::Reply& reply) {
        if (asked != attempt) return;
        if (!reply) return giveUpOn(reply.error().description);
        if (*reply == true) return finish(LockedBy::system);
        next = queue->after(questionPeriod, [this] { askWhetherLocked(); });
    });
}

void LinuxScreenLock::giveUpOn(const std::string& reason)
{
    const auto& given = lockers()[locker];
    log.info("{}: {}", given.lock.destination, reason);
    // On a bus that did not come up nobody else will answer either.
    const bool isMute = !connection || connectedTo != given.bus || !connection->isReady();
    do ++locker;
    while (isMute && locker < lockers().size() && lockers()[locker].bus == given.bus);
    if (isMute) connection.reset();
    patience.cancel();
    next.cancel();
    ++attempt;
    tryLocker();
}

void LinuxScreenLock::pressShortcut()
{
    constexpr auto held = keyModifier::control | keyModifier::command;
    posting = makeEventPosting();
    posting->postKey(keyQ, true, held, false);
    posting->postKey(keyQ, false, held, false);
    finish(LockedBy::shortcut);
}

void LinuxScreenLock::finish(LockedBy by)
{
    patience.cancel();
    next.cancel();
    ++attempt;
    connection.reset();
    for (const auto& done : std::exchange(waiting, {})) done(by); // we may be gone after any of them
}

} // namespace pelorin
