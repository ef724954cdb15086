// ProjectCopyCommand: a remote command run to its end, and the reading of
// what ssh printed when it failed.
#include "ProjectCopyCommand.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QSocketNotifier>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <mutex>

namespace hl {

void CopyTask::cancel() {
    cancelled_ = true;
    if (process_) process_->terminate();
}

namespace {

// Work for the main thread, handed over under a std::mutex; a pipe watched by
// a QSocketNotifier wakes the event loop, so nothing of the work's data
// crosses threads inside the toolkit.
struct MainThreadQueue {
    std::mutex lock;
    std::deque<std::function<void()>> work;
    int readFd = -1;
    int writeFd = -1;
    QSocketNotifier* notifier = nullptr;  // main thread only

    MainThreadQueue() {
        int fds[2];
        if (::pipe(fds) != 0) std::abort();
        for (int fd : fds) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
        readFd = fds[0];
        writeFd = fds[1];
    }

    void drain() {
        char buffer[64];
        while (::read(readFd, buffer, sizeof buffer) > 0) {
        }
        std::deque<std::function<void()>> ready;
        {
            std::lock_guard guard(lock);
            ready.swap(work);
        }
        for (auto& item : ready)
            item();
    }
};

// Never destroyed: a reading thread may still post while the process exits.
MainThreadQueue& mainThreadQueue() {
    static auto* queue = new MainThreadQueue();
    return *queue;
}

}  // namespace

void installCopyMainThreadQueue() {
    auto& queue = mainThreadQueue();
    auto* application = QCoreApplication::instance();
    if (queue.notifier || application == nullptr) return;
    queue.notifier = new QSocketNotifier(queue.readFd, QSocketNotifier::Read, application);
    QObject::connect(queue.notifier, &QSocketNotifier::activated, application,
                     [] { mainThreadQueue().drain(); });
    QMetaObject::invokeMethod(
        application, [] { mainThreadQueue().drain(); }, Qt::QueuedConnection);
}

void postToContext(const QPointer<QObject>& context, std::function<void()> work) {
    auto& queue = mainThreadQueue();
    bool wasEmpty = false;
    {
        std::lock_guard guard(queue.lock);
        wasEmpty = queue.work.empty();
        queue.work.push_back([context, work = std::move(work)] {
            if (context) work();
        });
    }
    if (wasEmpty) {
        const char wake = 1;
        while (::write(queue.writeFd, &wake, 1) < 0 && errno == EINTR) {
        }
    }
}

namespace ProjectCopyCommand {

void collect(const QString& executable, const QStringList& arguments,
             const ProjectCopyOrigin& origin, const ProjectCopyError& fallback,
             const std::shared_ptr<CopyTask>& task, QObject* context,
             std::function<void(Outcome)> done) {
    installCopyMainThreadQueue();
    const QPointer<QObject> receiver(context);
    if (task->isCancelled()) {
        postToContext(receiver, [done] { done(CopyFailure{CopyCancelled{}}); });
        return;
    }
    auto process = std::make_shared<StreamingProcess>(executable, arguments);
    auto output = std::make_shared<LockedData>();
    auto errors = std::make_shared<LockedData>();
    task->setProcess(process);
    process->run([output](const QByteArray& bytes) { output->append(bytes); },
                 [errors](const QByteArray& bytes) { errors->append(bytes); },
                 [=](StreamingProcess::Result result) {
                     postToContext(receiver, [=] {
                         if (task->isCancelled() || std::holds_alternative<CopyCancelled>(result))
                             done(CopyFailure{CopyCancelled{}});
                         else if (const auto* failed = std::get_if<CopyPlatformError>(&result))
                             done(CopyFailure{*failed});
                         else if (std::get<int>(result) == 0)
                             done(output->value());
                         else
                             done(CopyFailure{failure(errors->value(), origin, fallback)});
                     });
                 });
}

ProjectCopyError failure(const QByteArray& output, const ProjectCopyOrigin& origin,
                         const ProjectCopyError& fallback) {
    const QString text = QString::fromUtf8(output).toLower();
    if (text.contains("remote host identification has changed") ||
        text.contains("host key verification failed"))
        return ProjectCopyError::hostVerificationFailed();
    const bool denied = text.contains("permission denied (publickey") ||
                        text.contains("permission denied (password") ||
                        text.contains("permission denied (keyboard-interactive") ||
                        text.contains("permission denied, please try again");
    if (denied) {
        if (const auto command = ProjectCopyPlan::authenticationCommand(origin))
            return ProjectCopyError::authenticationFailed(*command);
    }
    return fallback;
}

}  // namespace ProjectCopyCommand

}  // namespace hl
