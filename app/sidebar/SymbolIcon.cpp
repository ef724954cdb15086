// Hand-drawn symbol icons: strokes on a 16-point grid, rendered at 1× and 2×.
#include "SymbolIcon.h"

#include <QApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QPixmap>

namespace hl {

namespace {

void chevron(QPainter& p, QPointF a, QPointF b, QPointF c) {
    QPainterPath path(a);
    path.lineTo(b);
    path.lineTo(c);
    p.drawPath(path);
}

void folder(QPainter& p) {
    QPainterPath path;
    path.moveTo(1.5, 4);
    path.lineTo(1.5, 13);
    path.lineTo(14.5, 13);
    path.lineTo(14.5, 5);
    path.lineTo(7.5, 5);
    path.lineTo(6, 3);
    path.lineTo(2.5, 3);
    path.closeSubpath();
    p.drawPath(path);
}

// A cloud over the lower part of the canvas, its flat base at y = 12.5.
void cloud(QPainter& p) {
    QPainterPath path(QPointF(4, 12.5));
    path.cubicTo(1.5, 12.5, 0.8, 9, 3.3, 8.2);
    path.cubicTo(3.3, 5, 7.5, 3.6, 9.2, 6.2);
    path.cubicTo(11.2, 5, 13.6, 6.4, 13, 8.4);
    path.cubicTo(15.6, 8.9, 15.2, 12.5, 12.5, 12.5);
    path.closeSubpath();
    p.drawPath(path);
}

// Draws the symbol on a 16 × 16 canvas with the painter's pen.
void drawSymbol(QPainter& p, const QString& name, const QColor& color) {
    if (name == "icloud") {
        cloud(p);
    } else if (name == "checkmark.icloud") {
        cloud(p);
        chevron(p, {6, 9.6}, {7.6, 11}, {10.4, 7.8});
    } else if (name == "arrow.triangle.2.circlepath.icloud") {
        cloud(p);
        // Two arcs chasing each other, with an arrowhead on each.
        const QRectF ring(5.8, 7.2, 4.4, 4.4);
        p.drawArc(ring, 30 * 16, 150 * 16);
        p.drawArc(ring, 210 * 16, 150 * 16);
        chevron(p, {5.2, 8.4}, {5.8, 9.6}, {7, 9.1});
        chevron(p, {10.8, 10.4}, {10.2, 9.2}, {9, 9.7});
    } else if (name == "icloud.slash") {
        cloud(p);
        p.drawLine(QPointF(2.5, 3), QPointF(13.5, 14));
    } else if (name == "folder.badge.questionmark") {
        folder(p);
        QPainterPath mark(QPointF(8.6, 8));
        mark.cubicTo(8.6, 6.4, 11.4, 6.4, 11.4, 8);
        mark.cubicTo(11.4, 9.2, 10, 9.2, 10, 10.4);
        p.drawPath(mark);
        p.drawPoint(QPointF(10, 11.8));
    } else if (name == "folder") {
        folder(p);
    } else if (name == "folder.badge.plus") {
        folder(p);
        p.drawLine(QPointF(8, 9), QPointF(12, 9));
        p.drawLine(QPointF(10, 7), QPointF(10, 11));
    } else if (name == "plus") {
        p.drawLine(QPointF(3, 8), QPointF(13, 8));
        p.drawLine(QPointF(8, 3), QPointF(8, 13));
    } else if (name == "xmark") {
        p.drawLine(QPointF(4.5, 4.5), QPointF(11.5, 11.5));
        p.drawLine(QPointF(11.5, 4.5), QPointF(4.5, 11.5));
    } else if (name == "xmark.square") {
        p.drawRoundedRect(QRectF(2, 2, 12, 12), 2, 2);
        p.drawLine(QPointF(5.5, 5.5), QPointF(10.5, 10.5));
        p.drawLine(QPointF(10.5, 5.5), QPointF(5.5, 10.5));
    } else if (name == "magnifyingglass") {
        p.drawEllipse(QRectF(2.5, 2.5, 8, 8));
        p.drawLine(QPointF(9.5, 9.5), QPointF(13.5, 13.5));
    } else if (name == "chevron.up") {
        chevron(p, {4, 10}, {8, 6}, {12, 10});
    } else if (name == "chevron.down") {
        chevron(p, {4, 6}, {8, 10}, {12, 6});
    } else if (name == "chevron.left") {
        chevron(p, {10, 4}, {6, 8}, {10, 12});
    } else if (name == "chevron.right") {
        chevron(p, {6, 4}, {10, 8}, {6, 12});
    } else if (name == "chevron.left.square") {
        p.drawRoundedRect(QRectF(2, 2, 12, 12), 2, 2);
        chevron(p, {9.5, 5}, {6.5, 8}, {9.5, 11});
    } else if (name == "chevron.right.square") {
        p.drawRoundedRect(QRectF(2, 2, 12, 12), 2, 2);
        chevron(p, {6.5, 5}, {9.5, 8}, {6.5, 11});
    } else if (name == "rectangle.split.2x1") {
        p.drawRoundedRect(QRectF(1.5, 3, 13, 10), 1.5, 1.5);
        p.drawLine(QPointF(8, 3), QPointF(8, 13));
    } else if (name == "rectangle.split.1x2") {
        p.drawRoundedRect(QRectF(1.5, 2.5, 13, 11), 1.5, 1.5);
        p.drawLine(QPointF(1.5, 8), QPointF(14.5, 8));
    } else if (name == "ellipsis") {
        p.setBrush(color);
        for (double x : {3.5, 8.0, 12.5})
            p.drawEllipse(QPointF(x, 8), 1.1, 1.1);
    } else if (name == "lightbulb") {
        QPainterPath bulb(QPointF(6, 11));
        bulb.cubicTo(6, 9, 3.5, 8, 3.5, 5.5);
        bulb.cubicTo(3.5, 3, 5.5, 1.5, 8, 1.5);
        bulb.cubicTo(10.5, 1.5, 12.5, 3, 12.5, 5.5);
        bulb.cubicTo(12.5, 8, 10, 9, 10, 11);
        bulb.closeSubpath();
        p.drawPath(bulb);
        p.drawLine(QPointF(6.5, 13), QPointF(9.5, 13));
        p.drawLine(QPointF(7, 14.8), QPointF(9, 14.8));
    } else if (name == "hand.raised") {
        QPainterPath hand(QPointF(4.5, 9));
        hand.lineTo(4.5, 4.5);
        hand.moveTo(6.5, 8);
        hand.lineTo(6.5, 2.5);
        hand.moveTo(8.5, 8);
        hand.lineTo(8.5, 2);
        hand.moveTo(10.5, 8.5);
        hand.lineTo(10.5, 3.5);
        hand.moveTo(4.5, 9);
        hand.cubicTo(4.5, 13, 6, 14.5, 8.5, 14.5);
        hand.cubicTo(11, 14.5, 12, 13, 12.5, 11);
        hand.lineTo(13.5, 7.5);
        hand.moveTo(10.5, 8.5);
        hand.lineTo(10.5, 10);
        hand.moveTo(13.5, 7.5);
        hand.lineTo(12, 7);
        hand.lineTo(10.5, 10);
        p.drawPath(hand);
    } else if (name == "checkmark.circle.fill") {
        p.setBrush(color);
        p.drawEllipse(QRectF(1.5, 1.5, 13, 13));
        p.setPen(QPen(Qt::white, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        chevron(p, {5, 8.2}, {7.2, 10.4}, {11, 5.8});
    } else if (name == "terminal") {
        p.drawRoundedRect(QRectF(1.5, 2.5, 13, 11), 2, 2);
        chevron(p, {4.5, 6}, {7, 8}, {4.5, 10});
        p.drawLine(QPointF(8.5, 10.5), QPointF(11.5, 10.5));
    } else if (name == "scribble.variable") {
        QPainterPath path(QPointF(2, 11));
        path.cubicTo(4, 3, 6, 3, 7, 8);
        path.cubicTo(8, 13, 10, 13, 11, 7);
        path.cubicTo(11.5, 4, 13, 4, 14, 6);
        p.drawPath(path);
    } else if (name == "exclamationmark.triangle.fill") {
        QPainterPath path(QPointF(8, 1.5));
        path.lineTo(15, 14);
        path.lineTo(1, 14);
        path.closeSubpath();
        p.fillPath(path, color);
        p.setPen(QPen(Qt::white, 1.6, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(QPointF(8, 6), QPointF(8, 9.5));
        p.drawPoint(QPointF(8, 12));
    }
}

// The symbol at `points`/16 of its size, in pixels of `scale`.
QPixmap render(const QString& name, const QColor& color, qreal scale, int points = 16) {
    QPixmap pixmap(QSize(points, points) * scale);
    pixmap.setDevicePixelRatio(scale);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(points / 16.0, points / 16.0);
    p.setPen(QPen(color, 1.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    drawSymbol(p, name, color);
    return pixmap;
}

}  // namespace

QIcon symbolIcon(const QString& name, QColor color) {
    if (!color.isValid()) color = QApplication::palette().color(QPalette::WindowText);
    QIcon icon;
    icon.addPixmap(render(name, color, 1));
    icon.addPixmap(render(name, color, 2));
    icon.addPixmap(render(name, color, 3));
    QColor disabled = color;
    disabled.setAlphaF(0.35);
    icon.addPixmap(render(name, disabled, 1), QIcon::Disabled);
    icon.addPixmap(render(name, disabled, 2), QIcon::Disabled);
    return icon;
}

QPixmap symbolPixmap(const QString& name, int points, QColor color) {
    if (!color.isValid()) color = QApplication::palette().color(QPalette::WindowText);
    return render(name, color, 2, points);
}

}  // namespace hl
