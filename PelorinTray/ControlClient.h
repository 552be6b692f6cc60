#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <QByteArray>
#include <QLocalSocket>
#include <QTimer>

namespace pelorin {

// Asks the host over its control socket, one request at a time, in order. Thread: the one with the windows.
class ControlClient {
public:
    explicit ControlClient(QString newSocketPath);
    ~ControlClient();

    // The whole answer, or an empty one: no host, or it stayed silent. Void once we are gone.
    using Answer = std::function<void(const QByteArray& answer)>;
    void ask(const QByteArray& request, Answer answer); // {"command":"status"}

    static constexpr int patienceMs = 5000; // a running host answers in milliseconds
    static constexpr qint64 mostBytes = 1 << 20;

private:
    struct Question {
        QByteArray request;
        Answer answer;
    };
    void next();
    void finish(const QByteArray& answer);

    QString socketPath;
    std::deque<Question> questions; // the first is being asked
    std::unique_ptr<QLocalSocket> socket;
    QByteArray received;
    QTimer patience;
    QTimer starting;
};

} // namespace pelorin
