#include "PelorinTray/SingleInstance.h"

#include <QDir>
#include <QLocalSocket>

namespace pelorin {
namespace {

constexpr int patienceMs = 2000;

} // namespace

SingleInstance::SingleInstance(const QString& directory)
    : socketPath(directory + "/tray.sock"),
      lock(directory + "/tray.lock")
{
    QDir().mkpath(directory);
    lock.setStaleLockTime(0); // a lock is stale when its process is gone, however old it is
    server.setSocketOptions(QLocalServer::UserAccessOption);
    QObject::connect(&server, &QLocalServer::newConnection, [this] {
        while (QLocalSocket* caller = server.nextPendingConnection()) {
            caller->deleteLater();
            if (onShow) onShow();
        }
    });
}

bool SingleInstance::claim()
{
    if (!lock.tryLock(0)) {
        QLocalSocket other;
        other.connectToServer(socketPath); // the call itself is the message
        other.waitForConnected(patienceMs);
        return false;
    }
    QLocalServer::removeServer(socketPath);
    server.listen(socketPath);
    return true;
}

} // namespace pelorin
