#pragma once

#include "PelorinTray/TrayModel.h"

#include <functional>
#include <QMenu>
#include <QVBoxLayout>
#include <QWidget>

namespace pelorin {

using ChooseEntry = std::function<void(const MenuEntry& entry)>;

// Makes menu show the entries. Where only texts differ they change in place, so that an open menu stays open.
class EntryMenu : public QMenu {
public:
    explicit EntryMenu(ChooseEntry newChoose) : choose(std::move(newChoose)) {}
    void show(const QList<MenuEntry>& wanted);

private:
    static void build(QMenu& menu, const QList<MenuEntry>& entries, const ChooseEntry& choose);
    static void update(const QMenu& menu, const QList<MenuEntry>& entries);
    friend class EntryWindow;

    ChooseEntry choose;
    QList<MenuEntry> shown;
};

// The same entries one below the other in a window, for desktops without a tray.
class EntryWindow : public QWidget {
public:
    explicit EntryWindow(ChooseEntry newChoose);
    std::function<void()> onClose;
    void show(const QList<MenuEntry>& wanted);

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* widgetOf(const MenuEntry& entry);
    static void update(QWidget* widget, const MenuEntry& entry);

    ChooseEntry choose;
    QList<MenuEntry> shown;
    QVBoxLayout* column;
    QList<QWidget*> widgets; // one for each entry
};

} // namespace pelorin
