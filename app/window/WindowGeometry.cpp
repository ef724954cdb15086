// The window's geometry: restored, fitted to the screen, saved after changes.
#include "WindowGeometry.h"

#include <QEvent>
#include <QScreen>
#include <QWidget>

namespace hl {

QRect fittedToScreen(const QRect& wanted, const QRect& available) {
    QRect fitted(wanted.topLeft(), wanted.size().boundedTo(available.size()));
    if (fitted.right() > available.right()) fitted.moveRight(available.right());
    if (fitted.bottom() > available.bottom()) fitted.moveBottom(available.bottom());
    if (fitted.left() < available.left()) fitted.moveLeft(available.left());
    if (fitted.top() < available.top()) fitted.moveTop(available.top());
    return fitted;
}

WindowGeometry::WindowGeometry(QWidget* window, std::shared_ptr<Preferences> defaults,
                               QSize preferred, QSize minimum)
    : QObject(window), window_(window), defaults_(std::move(defaults)), minimum_(minimum) {
    window_->resize(preferred);
    if (defaults_) {
        if (auto saved = defaults_->data(storageKey))
            window_->restoreGeometry(QByteArray::fromStdString(saved->bytes));
    }
    fit();
    saveTimer_.setSingleShot(true);
    saveTimer_.setInterval(500);
    connect(&saveTimer_, &QTimer::timeout, this, &WindowGeometry::save);
    window_->installEventFilter(this);
}

void WindowGeometry::fit() {
    QScreen* screen = window_->screen();
    if (!screen) return;
    const QRect available = screen->availableGeometry();
    window_->setMinimumSize(minimum_.boundedTo(available.size()));
    const QRect fitted = fittedToScreen(window_->geometry(), available);
    if (fitted != window_->geometry()) window_->setGeometry(fitted);
}

bool WindowGeometry::eventFilter(QObject* watched, QEvent* event) {
    if (watched == window_ && (event->type() == QEvent::Move || event->type() == QEvent::Resize))
        saveTimer_.start();
    return false;
}

void WindowGeometry::save() {
    if (defaults_ && window_->isVisible())
        defaults_->set(storageKey, PreferenceData{window_->saveGeometry().toStdString()});
}

}  // namespace hl
