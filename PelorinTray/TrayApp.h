#pragma once

#include "PelorinTray/Autostart.h"
#include "PelorinTray/ControlClient.h"
#include "PelorinTray/EntryViews.h"
#include "PelorinTray/PairingWindow.h"

#include <optional>
#include <QDeadlineTimer>
#include <QSystemTrayIcon>

namespace pelorin {

// Asks the host, shows the answers, does what is chosen. Thread: the one with the windows. Owned by the
// program.
class TrayApp {
public:
    struct Options {
        QString supportDirectory;
        Autostart autostart = Autostart::ofThisUser();
        bool isAtLogin = false; // the desktop's tray may still be on its way
        bool runsDefaultHost = true; // the one that the service manager knows
    };
    TrayApp(const Texts& newTexts, Options newOptions);

    std::function<void()> onQuit;

    void start();
    void showUp(); // the menu where the pointer is, or the window
    void choose(const MenuEntry& entry);

    static constexpr int quietMs = 5000; // between questions while nobody looks
    static constexpr int openMs = 1000;

private:
    void chooseSurface();
    void poll();
    void ask(const QByteArray& command, QByteArray TrayModel::* where);
    void refresh();
    bool isLookedAt() const;
    void request(const char* command, const QString& id = {});
    void copyReviewLink();
    void confirmRemoval(const MenuEntry& phone);
    void startHost();
    void toggleAutostart();
    void inform(const QString& text);

    Texts say;
    Options options;
    TrayModel model;
    std::optional<HostState> shownState;
    QDeadlineTimer menuOpen{0}; // drawn by the desktop, which may not tell of its end
    QTimer timer;
    EntryMenu menu;
    EntryWindow window;
    std::optional<QSystemTrayIcon> icon; // none: the window stands in
    std::optional<PairingWindow> pairing;
    ControlClient client; // last: no answer comes to what is gone
};

} // namespace pelorin
