#pragma once

#include <QString>
#include <QStringList>

namespace pelorin {

// Whether the desktop starts the tray at login: pelorin-tray.desktop in the autostart folders, of which the
// user's own comes first and may hide the system's.
class Autostart {
public:
    Autostart(QString newUserFolder, QStringList newSystemFolders, QString newProgram);
    static Autostart ofThisUser();

    bool isOn() const;
    bool set(bool on) const; // false when the file could not be written

private:
    QString userFile() const;

    QString userFolder; // "~/.config"
    QStringList systemFolders; // "/etc/xdg"
    QString program; // what a login runs
};

} // namespace pelorin
