#pragma once

#include "PelorinTray/ControlClient.h"
#include "PelorinTray/Texts.h"

#include <QDialog>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSet>

namespace pelorin {

// Shows one pairing offer from its beginning to its end: the code counts down, then either a phone has been
// paired, which the window shows before it closes, or it says what to do. Thread: the one with the windows.
class PairingWindow : public QDialog {
public:
    using Ask = std::function<void(const QByteArray& request, ControlClient::Answer answer)>;
    PairingWindow(const Texts& newTexts, Ask newAsk); // ask's answers must not outlive us

    void begin(); // a new offer, in place of the one shown
    void look(); // what became of the offer; a timer calls it every second

    enum class Stage { asking, offered, expired, refused, paired };
    Stage stage() const { return now; }

    static constexpr int successMs = 4000; // how long the picture stands

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void show(Stage stage, const QString& text);
    void offer(const QByteArray& answer);
    void countDown(int seconds);
    void finished(const QString& phone);

    const Texts say;
    Ask ask;
    Stage now = Stage::asking;
    int generation = 0; // raised with every offer; answers about an older one are stale
    int secondsLeft = 0;
    QSet<QString> knownPhones; // before the offer
    QTimer clock;
    QTimer closing;
    QLabel picture, text, review;
    QLineEdit link;
    QPushButton copy, reviewCopy, again, close;
};

// The text as a QR code, level M, so many pixels to a module, with its quiet zone; null when it is too long.
QImage qrImage(const QString& text, int pixelsPerModule);

} // namespace pelorin
