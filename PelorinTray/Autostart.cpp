#include "PelorinTray/Autostart.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>

namespace pelorin {
namespace {

constexpr const char* entry = "/autostart/pelorin-tray.desktop";

bool isHidden(const QString& path)
{
    QFile file(path);
    return !file.open(QIODevice::ReadOnly) || file.read(1 << 16).contains("\nHidden=true");
}

} // namespace

Autostart::Autostart(QString newUserFolder, QStringList newSystemFolders, QString newProgram)
    : userFolder(std::move(newUserFolder)),
      systemFolders(std::move(newSystemFolders)),
      program(std::move(newProgram))
{
}

Autostart Autostart::ofThisUser()
{
    QStringList folders = QStandardPaths::standardLocations(QStandardPaths::GenericConfigLocation);
    const QString own = folders.takeFirst();
    return {own, folders, QCoreApplication::applicationFilePath()};
}

QString Autostart::userFile() const
{
    return userFolder + entry;
}

bool Autostart::isOn() const
{
    if (QFile::exists(userFile())) return !isHidden(userFile());
    for (const QString& folder : systemFolders)
        if (QFile::exists(folder + entry)) return !isHidden(folder + entry);
    return false;
}

bool Autostart::set(bool on) const
{
    QDir().mkpath(userFolder + "/autostart");
    QSaveFile file(userFile());
    if (!file.open(QIODevice::WriteOnly)) return false;
    // A path with a quote or a dollar sign in it cannot be had in this format without a shell's help.
    const QString text = QString("[Desktop Entry]\nType=Application\nName=Pelorin\nIcon=pelorin-host\n"
                                 "Exec=\"%1\" --at-login\n%2")
                             .arg(program, on ? "" : "Hidden=true\n");
    file.write(text.toUtf8());
    return file.commit();
}

} // namespace pelorin
