#include "app/TrayIcon.h"

#include <QPainter>
#include <QPixmap>

namespace {

void drawMicrophone(QPainter &painter, const QColor &color) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawRoundedRect(QRectF(22, 6, 20, 34), 10, 10);
    QPen pen(color, 5);
    pen.setCapStyle(Qt::RoundCap);
    painter.setPen(pen);
    painter.setBrush(Qt::NoBrush);
    painter.drawArc(QRectF(14, 18, 36, 32), 180 * 16, 180 * 16);
    painter.drawLine(QPointF(32, 50), QPointF(32, 58));
}

} // namespace

QIcon trayIcon(PipelineState::Kind state) {
    QPixmap pixmap(64, 64);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    switch (state) {
    case PipelineState::Kind::idle:
        drawMicrophone(painter, Qt::black);
        break;
    case PipelineState::Kind::recording:
        drawMicrophone(painter, QColor(0xd9, 0x2d, 0x20));
        break;
    case PipelineState::Kind::thinking:
        drawMicrophone(painter, QColor(0xe0, 0x8a, 0x00));
        break;
    case PipelineState::Kind::error:
        drawMicrophone(painter, QColor(0x70, 0x70, 0x70));
        painter.setPen(QPen(Qt::white, 3));
        painter.setBrush(QColor(0xd9, 0x2d, 0x20));
        painter.drawEllipse(QRectF(36, 34, 26, 26));
        painter.setPen(QPen(Qt::white, 5, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(QPointF(49, 40), QPointF(49, 49));
        painter.drawPoint(QPointF(49, 55));
        break;
    }
    painter.end();
    QIcon icon(pixmap);
    icon.setIsMask(state == PipelineState::Kind::idle);
    return icon;
}
