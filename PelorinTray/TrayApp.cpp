#include "PelorinTray/TrayApp.h"

#include "PelorinTray/StateIcon.h"

#include <QApplication>
#include <QClipboard>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusServiceWatcher>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageBox>
#include <QProcess>

namespace pelorin {
namespace {

constexpr int trayPatienceMs = 10'000; // for the panel of a desktop that is just starting
constexpr int menuOpenMs = 60'000;
constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";

bool hasTrayService()
{
    auto* bus = QDBusConnection::sessionBus().interface();
    return bus && bus->isServiceRegistered(watcherName);
}

QMessageBox* newBox(QMessageBox::Icon icon, const QString& text)
{
    auto* box = new QMessageBox(icon, "Pelorin", text);
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    return box;
}

} // namespace

TrayApp::TrayApp(const Texts& newTexts, Options newOptions)
    : say(newTexts),
      options(std::move(newOptions)),
      model(say),
      menu([this](const MenuEntry& entry) { choose(entry); }),
      window([this](const MenuEntry& entry) { choose(entry); }),
      client(options.supportDirectory + "/control.sock")
{
    menu.setAccessibleName("Pelorin");
    window.setAccessibleName("Pelorin");
    window.onClose = [this] {
        if (!icon && onQuit) onQuit();
    };
    QObject::connect(&menu, &QMenu::aboutToShow, [this] {
        menuOpen.setRemainingTime(menuOpenMs);
        poll();
    });
    QObject::connect(&menu, &QMenu::aboutToHide, [this] { menuOpen.setRemainingTime(0); });
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, [this] { poll(); });
}

void TrayApp::start()
{
    model.launchesAtLogin = options.autostart.isOn();
    refresh();
    poll();
    if (!options.isAtLogin || hasTrayService()) return chooseSurface();
    // Qt asks for the desktop's tray once and for all, so it must not ask too early.
    auto* patience = new QTimer(&window);
    auto* arrival = new QDBusServiceWatcher(
        watcherName, QDBusConnection::sessionBus(), QDBusServiceWatcher::WatchForRegistration, patience);
    const auto decide = [this, patience] {
        patience->deleteLater();
        if (!icon && !window.isVisible()) chooseSurface();
    };
    QObject::connect(arrival, &QDBusServiceWatcher::serviceRegistered, patience, decide);
    QObject::connect(patience, &QTimer::timeout, patience, decide);
    patience->start(trayPatienceMs);
}

void TrayApp::chooseSurface()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        window.show(model.menu());
        return poll();
    }
    icon.emplace();
    shownState.reset();
    refresh();
    icon->setContextMenu(&menu);
    QObject::connect(&*icon, &QSystemTrayIcon::activated, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger) showUp();
    });
    icon->show();
}

void TrayApp::showUp()
{
    if (icon)
        menu.popup(QCursor::pos());
    else
        window.show(model.menu());
    QWidget* shown = icon ? static_cast<QWidget*>(&menu) : &window;
    shown->raise();
    shown->activateWindow();
}

bool TrayApp::isLookedAt() const
{
    return menu.isVisible() || window.isVisible() || !menuOpen.hasExpired();
}

void TrayApp::poll()
{
    timer.stop();
    ask("status", &TrayModel::status);
    if (isLookedAt()) {
        ask("devices", &TrayModel::devices);
        ask("connections", &TrayModel::connections);
        ask("agents", &TrayModel::agents);
    }
    timer.start(isLookedAt() ? openMs : quietMs);
}

void TrayApp::ask(const QByteArray& command, QByteArray TrayModel::* where)
{
    client.ask("{\"command\":\"" + command + "\"}", [this, where](const QByteArray& answer) {
        model.*where = answer;
        refresh();
    });
}

void TrayApp::refresh()
{
    const QList<MenuEntry> entries = model.menu();
    menu.show(entries);
    if (window.isVisible()) window.show(entries);
    window.setWindowTitle(model.summary().section('\n', 0, 0)); // a task bar shows the state, too
    const HostState state = model.state();
    if (icon) icon->setToolTip(model.summary());
    if (shownState == state) return;
    shownState = state;
    const QIcon picture = stateIcon(state);
    window.setWindowIcon(picture);
    if (icon) icon->setIcon(picture);
}

void TrayApp::choose(const MenuEntry& entry)
{
    using Action = MenuEntry::Action;
    switch (entry.action) {
    case Action::none:
        return;
    case Action::copyReviewLink:
        return copyReviewLink();
    case Action::endSession:
        return request("disconnect");
    case Action::pair:
        if (!pairing)
            pairing.emplace(say, [this](const QByteArray& text, ControlClient::Answer answer) {
                client.ask(text, std::move(answer));
            });
        return pairing->begin();
    case Action::removePhone:
        return confirmRemoval(entry);
    case Action::startHost:
        return startHost();
    case Action::stopHost:
        return request("quit");
    case Action::launchAtLogin:
        return toggleAutostart();
    case Action::about:
        return inform(say(texts::aboutText).arg(PELORIN_VERSION));
    case Action::quit:
        if (onQuit) onQuit();
        return;
    }
}

void TrayApp::request(const char* command, const QString& id)
{
    QJsonObject question{{"command", command}};
    if (!id.isEmpty()) question["id"] = id;
    client.ask(QJsonDocument(question).toJson(QJsonDocument::Compact), [this](const QByteArray& answer) {
        const QString error = QJsonDocument::fromJson(answer)["error"].toString();
        if (!error.isEmpty()) inform(say.ofHost(error));
        poll();
    });
}

void TrayApp::copyReviewLink()
{
    client.ask(R"({"command":"review"})", [this](const QByteArray& answer) {
        const QString link = QJsonDocument::fromJson(answer)["reviewLink"].toString();
        if (!link.isEmpty()) QApplication::clipboard()->setText(link);
        inform(say(link.isEmpty() ? texts::noReviewLink : texts::reviewLinkCopied));
    });
}

void TrayApp::confirmRemoval(const MenuEntry& phone)
{
    QMessageBox* box = newBox(QMessageBox::Warning, say(texts::removeQuestion).arg(phone.name));
    const QPushButton* yes = box->addButton(say(texts::remove), QMessageBox::DestructiveRole);
    box->setDefaultButton(box->addButton(say(texts::cancel), QMessageBox::RejectRole));
    QObject::connect(yes, &QPushButton::clicked, [this, id = phone.id] { request("remove", id); });
    box->show();
}

void TrayApp::startHost()
{
    const QStringList direct{"--headless", "--support-dir", options.supportDirectory};
    const auto startDirectly = [this, direct] {
        if (!QProcess::startDetached("pelorin-host", direct)) inform(say(texts::hostAbsent));
    };
    if (!options.runsDefaultHost) return startDirectly();
    auto* manager = new QProcess(&window);
    // Without a service manager, or without our unit, the program itself will do.
    QObject::connect(manager, &QProcess::finished, [manager, startDirectly](int code) {
        manager->deleteLater();
        if (code != 0) startDirectly();
    });
    QObject::connect(
        manager, &QProcess::errorOccurred, [manager, startDirectly](QProcess::ProcessError error) {
            if (error != QProcess::FailedToStart) return;
            manager->deleteLater();
            startDirectly();
        });
    manager->start("systemctl", {"--user", "start", "pelorin-host"});
}

void TrayApp::toggleAutostart()
{
    const bool on = !options.autostart.isOn();
    options.autostart.set(on);
    if (options.runsDefaultHost)
        QProcess::startDetached("systemctl", {"--user", on ? "enable" : "disable", "pelorin-host"});
    model.launchesAtLogin = options.autostart.isOn();
    menu.show({}); // the toggle changed by itself, which the entries don't know of
    refresh();
}

void TrayApp::inform(const QString& text)
{
    newBox(QMessageBox::Information, text)->show();
}

} // namespace pelorin
