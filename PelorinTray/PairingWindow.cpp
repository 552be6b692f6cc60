#include "PelorinTray/PairingWindow.h"

#include "PelorinTray/StateIcon.h"
#include "PelorinTray/TrayModel.h"

#include <memory>
#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <qrencode.h>
#include <QVBoxLayout>

namespace pelorin {
namespace {

constexpr int quietZone = 4; // modules; ISO/IEC 18004
constexpr int codeSide = 300; // at least, in points: what a phone reads at arm's length
constexpr int pictureSide = 160; // points
constexpr int clockTolerance = 2; // s; the host's remaining time is rounded and asked for at intervals

QJsonObject parse(const QByteArray& answer)
{
    return QJsonDocument::fromJson(answer).object();
}

QJsonArray devicesIn(const QByteArray& answer)
{
    return parse(answer)["devices"].toArray();
}

} // namespace

PairingWindow::PairingWindow(const Texts& newTexts, Ask newAsk) : say(newTexts), ask(std::move(newAsk))
{
    setWindowTitle(say(texts::pairingTitle));
    setWindowIcon(stateIcon(HostState::waiting));
    for (QLabel* label : {&text, &review}) {
        label->setTextFormat(Qt::PlainText);
        label->setAlignment(Qt::AlignCenter);
        label->setWordWrap(true);
    }
    picture.setAlignment(Qt::AlignCenter);
    picture.setMinimumSize(codeSide, pictureSide);
    link.setReadOnly(true);
    link.setAccessibleName(say(texts::pairingLink));
    review.setText(say(texts::reviewMode));
    copy.setText(say(texts::copyLink));
    reviewCopy.setText(say(texts::copyReviewLink));
    again.setText(say(texts::newCode));
    close.setText(say(texts::close));

    auto* buttons = new QHBoxLayout;
    for (QPushButton* button : {&copy, &again, &close}) {
        button->setAutoDefault(button != &copy);
        buttons->addWidget(button);
    }
    auto* column = new QVBoxLayout(this);
    for (QWidget* part : std::initializer_list<QWidget*>{&picture, &text, &link, &review, &reviewCopy})
        column->addWidget(part);
    column->addLayout(buttons);
    column->setSizeConstraint(QLayout::SetFixedSize);

    connect(&copy, &QPushButton::clicked, this, [this] {
        QApplication::clipboard()->setText(link.text());
        copy.setText(say(texts::linkCopied));
    });
    connect(&reviewCopy, &QPushButton::clicked, this, [this] {
        QApplication::clipboard()->setText(reviewCopy.property("link").toString());
        reviewCopy.setText(say(texts::reviewLinkCopied));
    });
    connect(&again, &QPushButton::clicked, this, [this] { begin(); });
    connect(&close, &QPushButton::clicked, this, [this] { hide(); });
    clock.setInterval(1000);
    connect(&clock, &QTimer::timeout, this, [this] { look(); });
    closing.setSingleShot(true);
    closing.setInterval(successMs);
    connect(&closing, &QTimer::timeout, this, [this] { hide(); });
}

void PairingWindow::begin()
{
    const int current = ++generation;
    closing.stop();
    show(Stage::asking, {});
    ask(R"({"command":"devices"})", [this, current](const QByteArray& answer) {
        if (current != generation) return;
        knownPhones.clear();
        for (const auto& device : devicesIn(answer)) knownPhones << device.toObject()["id"].toString();
        ask(R"({"command":"pair"})", [this, current](const QByteArray& reply) {
            if (current == generation) offer(reply);
        });
    });
}

void PairingWindow::offer(const QByteArray& answer)
{
    const QJsonObject reply = parse(answer);
    const QString url = reply["link"].toString();
    if (url.isEmpty()) {
        const QString why = say.ofHost(reply["error"].toString());
        return show(Stage::refused, why.isEmpty() ? say(texts::hostAbsent) : why);
    }
    link.setText(url);
    link.setCursorPosition(0);
    const QString reviewLink = reply["reviewLink"].toString();
    reviewCopy.setProperty("link", reviewLink);
    show(Stage::offered, {});
    review.setVisible(reply.contains("reviewText"));
    reviewCopy.setVisible(!reviewLink.isEmpty());
    const QImage code = qrImage(url, 1);
    if (!code.isNull()) {
        const double scale = devicePixelRatioF();
        const int perModule = static_cast<int>(std::ceil(codeSide * scale / code.width()));
        QPixmap pixels = QPixmap::fromImage(qrImage(url, perModule));
        pixels.setDevicePixelRatio(scale);
        picture.setPixmap(pixels);
        picture.setAccessibleName(say(texts::qrCode));
    }
    countDown(reply["expiresInSeconds"].toInt());
    clock.start();
}

void PairingWindow::look()
{
    if (now != Stage::offered) return;
    const int current = generation;
    // In this order: when the offer is gone because a phone took it, the phone is in the list by then.
    ask(R"({"command":"status"})", [this, current](const QByteArray& status) {
        const QJsonObject pending = parse(status)["pairing"].toObject()["pending"].toObject();
        ask(R"({"command":"devices"})", [this, current, pending](const QByteArray& answer) {
            if (current != generation || now != Stage::offered) return;
            for (const auto& device : devicesIn(answer))
                if (!knownPhones.contains(device.toObject()["id"].toString()))
                    return finished(device.toObject()["name"].toString());
            const int seconds = pending["expiresInSeconds"].toInt();
            const bool isAnother = seconds > secondsLeft + clockTolerance; // begun elsewhere, in ours' place
            if (seconds <= 0 || isAnother) return show(Stage::expired, say(texts::expired));
            countDown(seconds);
        });
    });
}

void PairingWindow::countDown(int seconds)
{
    secondsLeft = seconds;
    const QString left = say(texts::validity).arg(seconds / 60).arg(seconds % 60, 2, 10, QChar('0'));
    text.setText(say(texts::scan).arg(left));
}

void PairingWindow::finished(const QString& phone)
{
    show(Stage::paired, say(texts::paired).arg(TrayModel::label(phone)));
    picture.setPixmap(successPicture(pictureSide, devicePixelRatioF()));
    picture.setAccessibleName(say(texts::pairedPicture));
    closing.start();
}

void PairingWindow::show(Stage stage, const QString& words)
{
    now = stage;
    if (stage != Stage::offered) {
        clock.stop();
        link.clear(); // nobody needs a link that leads nowhere
        picture.setPixmap({});
        picture.setAccessibleName({});
        reviewCopy.setProperty("link", QString());
    }
    text.setText(words);
    copy.setText(say(texts::copyLink));
    reviewCopy.setText(say(texts::copyReviewLink));
    const bool isOffered = stage == Stage::offered;
    picture.setVisible(isOffered || stage == Stage::paired);
    link.setVisible(isOffered);
    copy.setVisible(isOffered);
    review.setVisible(false);
    reviewCopy.setVisible(false);
    again.setVisible(stage == Stage::expired || stage == Stage::refused);
    QDialog::show();
}

void PairingWindow::hideEvent(QHideEvent* event)
{
    ++generation; // what is still asked for is of no use any more
    clock.stop();
    closing.stop();
    link.clear();
    QDialog::hideEvent(event);
}

QImage qrImage(const QString& text, int pixelsPerModule)
{
    const QByteArray bytes = text.toUtf8();
    const std::unique_ptr<QRcode, void (*)(QRcode*)> code(
        QRcode_encodeData(static_cast<int>(bytes.size()),
            reinterpret_cast<const unsigned char*>(bytes.constData()), 0, QR_ECLEVEL_M),
        QRcode_free);
    if (!code) return {};
    const int side = code->width + 2 * quietZone;
    QImage image(side, side, QImage::Format_RGB32);
    image.fill(Qt::white);
    for (int y = 0; y < code->width; ++y)
        for (int x = 0; x < code->width; ++x)
            if (code->data[y * code->width + x] & 1)
                image.setPixel(x + quietZone, y + quietZone, qRgb(0, 0, 0));
    return image.scaled(image.size() * pixelsPerModule);
}

} // namespace pelorin
