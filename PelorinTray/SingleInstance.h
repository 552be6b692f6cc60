#pragma once

#include <functional>
#include <QLocalServer>
#include <QLockFile>

namespace pelorin {

// One tray for a support directory. Thread: the one with the windows.
class SingleInstance {
public:
    explicit SingleInstance(const QString& directory); // made when it is missing

    // False when another one runs; it is asked to show itself.
    bool claim();
    std::function<void()> onShow; // a second start asked for us

private:
    QString socketPath;
    QLockFile lock;
    QLocalServer server;
};

} // namespace pelorin
