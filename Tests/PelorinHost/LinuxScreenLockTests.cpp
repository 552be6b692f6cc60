#include "PelorinHost/Linux/LinuxScreenLock.h"

#include "PelorinHost/Linux/XtestEventPosting.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Fakes/RecordingEventPosting.h"
#include "Tests/Lab/InputWindow.h"
#include "Tests/Lab/MessageBus.h"
#include "Tests/Lab/Wait.h"
#include "Tests/Lab/XServer.h"

#include <csignal>
#include <gmock/gmock.h>

namespace pelorin {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string nowhere = "unix:path=/nonexistent/bus";

// The login manager's own session, whose locker says that it has locked.
class Login {
public:
    explicit Login(const lab::MessageBus& bus, const std::string& onLock)
        : service(bus, "org.freedesktop.login1", "/org/freedesktop/login1/session/auto", session)
    {
        service.addFlag("LockedHint");
        service.addMethod("Lock", "", onLock);
    }
    static constexpr const char* session = "org.freedesktop.login1.Session";
    static constexpr const char* locks = "self.Set('org.freedesktop.login1.Session', 'LockedHint', True)";
    static constexpr const char* isDeaf = "pass"; // no locker listens

    lab::BusService service;
};

class Saver {
public:
    Saver(const lab::MessageBus& bus, const std::string& name, const std::string& path,
        const std::string& onLock)
        : service(bus, name, path, name)
    {
        service.addMethod("GetActive", "b", "ret = getattr(self, 'is_locked', False)");
        service.addMethod("Lock", "", onLock);
    }
    static constexpr const char* locks = "self.is_locked = True";

    lab::BusService service;
};

class LinuxScreenLockTest : public testing::Test {
protected:
    void open(const std::string& systemBus, const std::string& sessionBus)
    {
        screenLock = std::make_unique<LinuxScreenLock>(
            queue,
            [this] {
                struct Posting final : EventPosting {
                    explicit Posting(EventPosting& newRecord) : record(newRecord) {}
                    void postPointer(PointerEventType, Point, int, int) override {}
                    void postButton(MouseButton, bool, Point, int) override {}
                    void postScroll(int, int, ScrollPhase, MomentumPhase) override {}
                    void postKey(
                        std::uint16_t code, bool isDown, KeyModifiers flags, bool isModifier) override
                    {
                        record.postKey(code, isDown, flags, isModifier);
                    }
                    void postUnicode(const std::u16string&) override {}
                    std::optional<Point> cursorLocation() override { return {}; }
                    EventPosting& record;
                };
                return std::make_unique<Posting>(keys);
            },
            DBusAddresses{systemBus, sessionBus});
    }

    // The queue's time stands still meanwhile, however long others take.
    bool runsUntil(const std::function<bool()>& condition)
    {
        return lab::eventually([&] {
            queues.runReady();
            return condition();
        });
    }

    void begin()
    {
        text.clear();
        screenLock->lock([this](LockedBy by) { text = lockedText(by); });
        EXPECT_EQ(text, ""); // never within the call
    }
    std::string end() // what goes to the connection log
    {
        runsUntil([this] { return !text.empty(); });
        return text;
    }
    std::string lock()
    {
        begin();
        return end();
    }

    static constexpr auto patience = 1500ms; // with one that does not answer
    std::string text;
    ManualQueues queues;
    QueueRef queue = queues.makeQueue("test");
    fakes::RecordingEventPosting keys;
    std::unique_ptr<LinuxScreenLock> screenLock;
};

TEST_F(LinuxScreenLockTest, asksTheLoginManagerFirst)
{
    const lab::MessageBus system, session;
    const Login login(system, Login::locks);
    const Saver saver(session, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", Saver::locks);
    open(system.address(), session.address());
    EXPECT_EQ(lock(), "locked the Mac");
    EXPECT_THAT(login.service.calls(), HasSubstr(" Lock\n"));
    EXPECT_THAT(saver.service.calls(), IsEmpty());
    EXPECT_THAT(keys.events, IsEmpty());

    EXPECT_EQ(lock(), "locked the Mac"); // and again, at the end of the next session
}

TEST_F(LinuxScreenLockTest, goesOnToALockerThatSaysSo)
{
    const lab::MessageBus system, session;
    const Login login(system, Login::isDeaf);
    const Saver refusing(session, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
        "raise dbus.exceptions.DBusException('no', name='org.freedesktop.DBus.Error.NotSupported')");
    const Saver saver(session, "org.gnome.ScreenSaver", "/org/gnome/ScreenSaver", Saver::locks);
    open(system.address(), session.address());
    begin();
    EXPECT_TRUE(runsUntil([&] { return login.service.calls().find(" Lock\n") != std::string::npos; }));
    queues.advance(patience);
    EXPECT_EQ(end(), "locked the Mac");
    EXPECT_THAT(refusing.service.calls(), HasSubstr(" Lock\n"));
    EXPECT_THAT(saver.service.calls(), HasSubstr(" Lock\n"));
    EXPECT_THAT(keys.events, IsEmpty());
}

TEST_F(LinuxScreenLockTest, pressesTheShortcutWhereNobodyLocks)
{
    const std::string flags = " flags 10"; // control and command
    const auto isShortcut = ElementsAre("key 12 down" + flags, "key 12 up" + flags);

    open(nowhere, nowhere);
    EXPECT_EQ(lock(), "locked the Mac with ⌃⌘Q");
    EXPECT_THAT(keys.takeEvents(), isShortcut);

    const lab::MessageBus system, session;
    open(system.address(), session.address());
    EXPECT_EQ(lock(), "locked the Mac with ⌃⌘Q");
    EXPECT_THAT(keys.takeEvents(), isShortcut);

    open("nonsense", "tcp:host=127.0.0.1,port=1");
    EXPECT_EQ(lock(), "locked the Mac with ⌃⌘Q");
    EXPECT_THAT(keys.takeEvents(), isShortcut);
}

TEST_F(LinuxScreenLockTest, isHeldUpByNobody)
{
    lab::MessageBus system, session;
    Login login(system, Login::locks);
    const Saver saver(session, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", Saver::locks);

    open(system.address(), session.address());
    login.service.process().signal(SIGSTOP); // a service that takes the call and never answers
    begin();
    queues.advance(patience);
    EXPECT_EQ(end(), "locked the Mac");
    EXPECT_THAT(saver.service.calls(), HasSubstr(" Lock\n"));
    login.service.process().signal(SIGCONT);

    session.process().signal(SIGSTOP); // whole buses that take a connection and say nothing
    system.process().signal(SIGSTOP);
    begin();
    queues.advance(2 * patience);
    EXPECT_EQ(end(), "locked the Mac with ⌃⌘Q");
    EXPECT_EQ(keys.takeEvents().size(), 2u);

    // Gone in the middle, whatever it waits for.
    int answers = 0;
    for (const auto moment : {0ms, 1ms, 1499ms, 1501ms}) {
        open(system.address(), session.address());
        screenLock->lock([&](LockedBy) { ++answers; });
        queues.advance(moment);
        screenLock.reset();
        queues.advance(10s);
    }
    EXPECT_EQ(answers, 0);
    system.process().signal(SIGCONT);

    // A bus that dies while it is asked.
    open(system.address(), nowhere);
    login.service.process().signal(SIGSTOP);
    screenLock->lock([&](LockedBy by) { answers += by == LockedBy::shortcut ? 1 : 100; });
    queues.runReady();
    system.process().signal(SIGKILL);
    EXPECT_TRUE(runsUntil([&] { return answers > 0; }));
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(keys.takeEvents().size(), 2u);
    login.service.process().signal(SIGCONT);
    session.process().signal(SIGCONT);
}

TEST_F(LinuxScreenLockTest, answersEveryoneOnceAndMayBeDestroyedByAnAnswer)
{
    open(nowhere, nowhere);
    int answers = 0;
    screenLock->lock([&](LockedBy) {
        ++answers;
        screenLock.reset();
    });
    screenLock->lock([&](LockedBy) { ++answers; });
    queues.runReady();
    EXPECT_EQ(answers, 2);
    EXPECT_EQ(keys.events.size(), 2u);
}

TEST_F(LinuxScreenLockTest, itsShortcutReachesTheDesktop)
{
    const lab::XServer server;
    lab::InputWindow window(server.display());
    screenLock = std::make_unique<LinuxScreenLock>(
        queue, [&] { return std::make_unique<XtestEventPosting>(queue, server.display()); },
        DBusAddresses{nowhere, nowhere});
    EXPECT_EQ(lock(), "locked the Mac with ⌃⌘Q");
    EXPECT_THAT(window.eventsUntil("key 37 up"),
        ElementsAre("key 37 down", "key 133 down", "key 24 down", "key 24 up", "key 133 up", "key 37 up"));
}

} // namespace
} // namespace pelorin
