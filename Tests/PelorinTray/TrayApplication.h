#pragma once

#include <functional>
#include <QByteArray>
#include <QElapsedTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMap>
#include <QStringList>

namespace pelorin::lab {

// Runs the event loop until condition holds; false when it never did.
bool eventuallyInLoop(const std::function<bool()>& condition, int withinMs = 10'000);

// A host's end of the control socket, inside the test's own event loop.
class ControlPeer {
public:
    explicit ControlPeer(const QString& directory);

    QMap<QString, QByteArray> answers; // by command; a command without one is left without an answer
    QList<QByteArray> requests;

private:
    QLocalServer server;
};

} // namespace pelorin::lab
