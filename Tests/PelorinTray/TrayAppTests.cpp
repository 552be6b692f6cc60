#include "PelorinTray/SingleInstance.h"
#include "PelorinTray/StateIcon.h"
#include "PelorinTray/TrayApp.h"
#include "Tests/PelorinTray/TrayApplication.h"

#include <gtest/gtest.h>
#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QMessageBox>
#include <QTemporaryDir>

namespace pelorin {
namespace {

using lab::eventuallyInLoop;
using Action = MenuEntry::Action;

const Texts english(Texts::Language::english);

const QByteArray quietStatus = R"({"listening": "127.0.0.1:7420", "session": null,
    "pairing": {"required": true, "pending": null}})";

template <class Widget>
Widget* shown(const QString& text)
{
    for (QWidget* widget : QApplication::allWidgets())
        if (auto* found = qobject_cast<Widget*>(widget))
            if (found->isVisible() && found->text() == text) return found;
    return nullptr;
}

struct TrayAppTest : testing::Test {
    QTemporaryDir folder;
    TrayApp::Options options{folder.path(), Autostart(folder.path(), {}, "/bin/tray"), false, false};
};

TEST_F(TrayAppTest, followsTheHostInAWindowWhereThereIsNoTray)
{
    TrayApp tray(english, options);
    tray.start();
    ASSERT_TRUE(eventuallyInLoop([] { return shown<QLabel>("The host is not running") != nullptr; }));
    lab::ControlPeer host(folder.path());
    host.answers["status"] = quietStatus;
    host.answers["disconnect"] = R"({"disconnected": true})";
    for (const char* list : {"devices", "connections", "agents"}) host.answers[list] = "{}";
    EXPECT_TRUE(eventuallyInLoop([] { return shown<QLabel>("Waiting for a phone") != nullptr; }));
    host.answers["status"]
        = R"({"listening": "x", "session": {"client": "R&D"}, "pairing": {"required": true}})";
    ASSERT_TRUE(eventuallyInLoop([] { return shown<QLabel>("Connected: R&D") != nullptr; }));
    auto* end = shown<QPushButton>("End the session");
    ASSERT_NE(end, nullptr);
    end->click();
    EXPECT_TRUE(eventuallyInLoop([&] { return host.requests.contains(R"({"command":"disconnect"})"); }));
    bool hasQuit = false;
    tray.onQuit = [&] { hasQuit = true; };
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (widget->accessibleName() == "Pelorin" && widget->isVisible()) widget->close();
    EXPECT_TRUE(hasQuit) << "nothing is left to reach it by";
}

TEST_F(TrayAppTest, asksBeforeItRemovesAPhoneAndTellsOfRefusals)
{
    lab::ControlPeer host(folder.path());
    host.answers["status"] = quietStatus;
    host.answers["remove"] = R"({"error": "没有\nno such phone"})";
    TrayApp tray(english, options);
    const MenuEntry removal{MenuEntry::Kind::action, "Remove…", Action::removePhone, "dev-1\"", "a %1 <b>"};
    tray.choose(removal);
    auto* cancel = shown<QPushButton>("Cancel");
    ASSERT_NE(cancel, nullptr);
    cancel->click();
    tray.choose(removal);
    shown<QPushButton>("Remove")->click();
    ASSERT_TRUE(eventuallyInLoop([] { return shown<QLabel>("no such phone") != nullptr; }));
    EXPECT_EQ(host.requests.count(R"({"command":"remove","id":"dev-1\""})"), 1);
    QApplication::closeAllWindows();
}

TEST_F(TrayAppTest, copiesTheReviewLinkAndOutlivesASilentHost)
{
    lab::ControlPeer host(folder.path());
    host.answers["review"] = R"({"reviewLink": "pelorin://pair?review"})";
    host.answers["status"] = quietStatus;
    {
        TrayApp tray(english, options);
        tray.choose({MenuEntry::Kind::action, {}, Action::copyReviewLink});
        ASSERT_TRUE(eventuallyInLoop([] { return shown<QLabel>("Review link copied") != nullptr; }));
        EXPECT_EQ(QApplication::clipboard()->text(), "pelorin://pair?review");
        tray.choose({MenuEntry::Kind::action, {}, Action::endSession}); // never answered
        ASSERT_TRUE(eventuallyInLoop([&] { return host.requests.size() == 2; }));
    }
    QApplication::closeAllWindows();
    EXPECT_TRUE(eventuallyInLoop([] { return shown<QLabel>("Review link copied") == nullptr; }));
}

TEST_F(TrayAppTest, keepsLaunchAtLoginInTheUsersOwnFolder)
{
    QTemporaryDir system;
    const Autostart autostart(folder.path(), {system.path()}, "/opt/a b/pelorin-tray");
    EXPECT_FALSE(autostart.isOn());
    QDir(system.path()).mkdir("autostart");
    QFile shipped(system.path() + "/autostart/pelorin-tray.desktop");
    ASSERT_TRUE(shipped.open(QIODevice::WriteOnly) && shipped.write("[Desktop Entry]\nExec=x\n") > 0);
    shipped.close();
    EXPECT_TRUE(autostart.isOn());
    EXPECT_TRUE(autostart.set(false));
    EXPECT_FALSE(autostart.isOn()) << "the user's word counts more";
    EXPECT_TRUE(autostart.set(true));
    EXPECT_TRUE(autostart.isOn());
    QFile own(folder.path() + "/autostart/pelorin-tray.desktop");
    ASSERT_TRUE(own.open(QIODevice::ReadOnly));
    EXPECT_TRUE(own.readAll().contains("Exec=\"/opt/a b/pelorin-tray\" --at-login\n"));
    EXPECT_FALSE(Autostart("/proc/no", {}, "x").set(true));
}

TEST_F(TrayAppTest, claimsItsPlaceAfterACrashToo)
{
    QFile dead(folder.path() + "/tray.sock");
    ASSERT_TRUE(dead.open(QIODevice::WriteOnly));
    dead.close();
    SingleInstance first(folder.path());
    int calls = 0;
    first.onShow = [&] { ++calls; };
    EXPECT_TRUE(first.claim());
    EXPECT_FALSE(SingleInstance(folder.path()).claim());
    EXPECT_TRUE(eventuallyInLoop([&] { return calls == 1; }));
}

// A state is told by shape as well as by colour.
TEST_F(TrayAppTest, drawsEachStateDifferentlyWithoutColours)
{
    const auto grey = [](HostState state) {
        return stateIcon(state).pixmap(22, 22).toImage().convertToFormat(QImage::Format_Grayscale8);
    };
    const QImage waiting = grey(HostState::waiting), connected = grey(HostState::connected),
                 trouble = grey(HostState::trouble);
    EXPECT_TRUE(waiting != connected && connected != trouble && trouble != waiting);
}

} // namespace
} // namespace pelorin
