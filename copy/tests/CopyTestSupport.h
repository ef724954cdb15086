// What the copy tests share besides the test sshd: waiting on the event loop.
#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <functional>

namespace hl::copytest {

// Runs the event loop until `condition` holds; false after `seconds`.
inline bool processEventsUntil(const std::function<bool()>& condition, int seconds = 120) {
    QDeadlineTimer deadline(seconds * 1000);
    while (!condition()) {
        if (deadline.hasExpired()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

}  // namespace hl::copytest
