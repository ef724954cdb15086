// Icons of the window, drawn by hand on a 16-point grid and named after the
// system symbols they stand for ("folder.badge.plus", "chevron.left", …), so
// that they look the same under every desktop theme and without one.
#pragma once

#include <QColor>
#include <QIcon>
#include <QPixmap>
#include <QString>

namespace hl {

// The icon for a symbol name; an unknown name draws nothing. An invalid colour
// means the application palette's text colour.
QIcon symbolIcon(const QString& name, QColor color = QColor());
// The symbol drawn `points` wide, for a size that icons do not come in.
QPixmap symbolPixmap(const QString& name, int points, QColor color = QColor());

}  // namespace hl
