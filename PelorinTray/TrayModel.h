#pragma once

#include "PelorinTray/Texts.h"

#include <QByteArray>
#include <QList>
#include <QStringList>

namespace pelorin {

// At a glance.
enum class HostState { waiting, connected, trouble };

// One line of the menu, or of the window that stands in for it.
struct MenuEntry {
    enum class Kind { line, action, toggle, group, separator };
    enum class Action {
        none,
        copyReviewLink,
        endSession,
        pair,
        removePhone,
        startHost,
        stopHost,
        launchAtLogin,
        about,
        quit
    };
    Kind kind = Kind::line;
    QString text;
    Action action = Action::none;
    QString id = {}; // of the phone that is meant
    QString name = {}; // of that phone
    bool isOn = true; // an action: can be chosen; a toggle: is checked
    QList<MenuEntry> entries = {}; // of a group
    bool operator==(const MenuEntry& other) const;
};

// What the control socket's answers mean to somebody who looks at the menu. Answers come from a host of any
// version: what is missing or odd in them is left out. An empty answer means that no host did.
class TrayModel {
public:
    TrayModel(const Texts& newTexts) : say(newTexts) {}

    QByteArray status, devices, connections, agents; // the latest answers
    bool launchesAtLogin = false;

    HostState state() const;
    QString summary() const; // a line or two, for the icon's tool tip
    QList<MenuEntry> menu() const;

    // One line that can be shown anywhere: names come from the network. At most mostLetters long.
    static QString label(const QString& text);
    static constexpr int mostLetters = 90;

private:
    Texts say;
};

} // namespace pelorin
