#include "PelorinTray/StateIcon.h"

#include <QPainter>
#include <QPixmap>

namespace pelorin {
namespace {

const QColor frameColor(0x31, 0x47, 0x5e), screenColor(0xff, 0xd0, 0x80), phoneColor(0x1f, 0x2d, 0x3c),
    goodColor(0x2e, 0x9e, 0x5b), troubleColor(0xd0, 0x3b, 0x2f), quietColor(0x8a, 0x97, 0xa5);

// On a square of 64 units, as Packaging/icons/pelorin-host.svg has it.
void paintDesktop(QPainter& painter)
{
    painter.setPen(QPen(QColor(255, 255, 255, 160), 2)); // keeps it apart from a dark panel
    painter.setBrush(frameColor);
    painter.drawRoundedRect(QRectF(3, 7, 54, 40), 4, 4);
    painter.drawRoundedRect(QRectF(16, 50, 28, 6), 2, 2);
    painter.setPen(Qt::NoPen);
    painter.setBrush(screenColor);
    painter.drawRect(QRectF(8, 12, 44, 30));
}

void paintBadge(QPainter& painter, HostState state)
{
    const QRectF badge(32, 32, 30, 30);
    painter.setPen(QPen(Qt::white, 3));
    switch (state) {
    case HostState::waiting:
        painter.setBrush(Qt::white);
        painter.drawEllipse(badge);
        painter.setPen(QPen(quietColor, 5));
        painter.drawEllipse(badge.adjusted(5, 5, -5, -5));
        break;
    case HostState::connected:
        painter.setBrush(goodColor);
        painter.drawEllipse(badge);
        painter.setPen(QPen(Qt::white, 4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolyline(QPolygonF({{40, 47}, {45, 53}, {54, 41}}));
        break;
    case HostState::trouble:
        painter.setBrush(troubleColor);
        painter.drawEllipse(badge);
        painter.setPen(QPen(Qt::white, 4.5, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(47, 39), QPointF(47, 48));
        painter.drawPoint(QPointF(47, 55));
        break;
    }
}

} // namespace

QIcon stateIcon(HostState state)
{
    QIcon icon;
    for (const int size : {16, 22, 32, 48, 64}) {
        QPixmap picture(size, size);
        picture.fill(Qt::transparent);
        QPainter painter(&picture);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.scale(size / 64.0, size / 64.0);
        paintDesktop(painter);
        paintBadge(painter, state);
        painter.end();
        icon.addPixmap(picture);
    }
    return icon;
}

QPixmap successPicture(int sizePx, double scale)
{
    QPixmap picture(QSize(sizePx, sizePx) * scale);
    picture.setDevicePixelRatio(scale);
    picture.fill(Qt::transparent);
    QPainter painter(&picture);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(sizePx / 100.0, sizePx / 100.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(goodColor);
    painter.drawEllipse(QRectF(15, 15, 70, 70));
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(Qt::white, 8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPolyline(QPolygonF({{33, 51}, {45, 63}, {67, 38}}));
    return picture;
}

} // namespace pelorin
