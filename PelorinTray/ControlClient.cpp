#include "PelorinTray/ControlClient.h"

namespace pelorin {

ControlClient::ControlClient(QString newSocketPath) : socketPath(std::move(newSocketPath))
{
    patience.setSingleShot(true);
    patience.setInterval(patienceMs);
    QObject::connect(&patience, &QTimer::timeout, [this] { finish({}); });
    // From the event loop, so that no answer arrives inside the call that asked.
    starting.setSingleShot(true);
    starting.setInterval(0);
    QObject::connect(&starting, &QTimer::timeout, [this] { next(); });
}

ControlClient::~ControlClient()
{
    if (socket) socket->disconnect();
}

void ControlClient::ask(const QByteArray& request, Answer answer)
{
    questions.push_back({request, std::move(answer)});
    if (questions.size() == 1) starting.start();
}

void ControlClient::next()
{
    if (questions.empty()) return;
    received.clear();
    socket = std::make_unique<QLocalSocket>();
    QLocalSocket* asked = socket.get();
    patience.start();
    QObject::connect(
        asked, &QLocalSocket::connected, [this, asked] { asked->write(questions.front().request + "\n"); });
    QObject::connect(asked, &QLocalSocket::readyRead, [this, asked] {
        received += asked->readAll();
        if (received.size() > mostBytes) finish({});
    });
    // Its end closes a whole answer; a host that is not there ends it as well, with nothing received.
    QObject::connect(
        asked, &QLocalSocket::errorOccurred, [this](QLocalSocket::LocalSocketError) { finish(received); });
    QObject::connect(asked, &QLocalSocket::disconnected, [this] { finish(received); });
    asked->connectToServer(socketPath);
}

void ControlClient::finish(const QByteArray& answer)
{
    if (!socket) return;
    patience.stop();
    socket->disconnect();
    socket.release()->deleteLater(); // we are called from inside it
    const Question question = std::move(questions.front());
    questions.pop_front();
    if (!questions.empty()) starting.start();
    question.answer(answer); // last: it may destroy us
}

} // namespace pelorin
