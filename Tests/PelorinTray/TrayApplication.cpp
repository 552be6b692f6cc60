#include "Tests/PelorinTray/TrayApplication.h"

#include <gtest/gtest.h>
#include <QApplication>
#include <QJsonDocument>
#include <QJsonObject>

namespace pelorin::lab {
namespace {

// Windows without a display, one application for all tests.
class Application : public testing::Environment {
public:
    void SetUp() override
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        app.emplace(argumentCount, arguments);
        QApplication::setQuitOnLastWindowClosed(false);
    }
    void TearDown() override { app.reset(); }

private:
    int argumentCount = 1;
    char name[6] = "tests";
    char* arguments[2] = {name, nullptr};
    std::optional<QApplication> app;
};

[[maybe_unused]] const auto* const application = testing::AddGlobalTestEnvironment(new Application);

} // namespace

bool eventuallyInLoop(const std::function<bool()>& condition, int withinMs)
{
    QElapsedTimer clock;
    for (clock.start(); !condition();) {
        if (clock.hasExpired(withinMs)) return false;
        QApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::AllEvents, 10);
        QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

ControlPeer::ControlPeer(const QString& directory)
{
    server.listen(directory + "/control.sock");
    QObject::connect(&server, &QLocalServer::newConnection, [this] {
        QLocalSocket* caller = server.nextPendingConnection();
        QObject::connect(caller, &QLocalSocket::disconnected, caller, &QObject::deleteLater);
        QObject::connect(caller, &QLocalSocket::readyRead, caller, [this, caller] {
            if (!caller->canReadLine()) return;
            requests << caller->readLine().trimmed();
            const QString command = QJsonDocument::fromJson(requests.last())["command"].toString();
            if (!answers.contains(command)) return;
            caller->write(answers[command]);
            caller->disconnectFromServer();
        });
    });
}

} // namespace pelorin::lab
