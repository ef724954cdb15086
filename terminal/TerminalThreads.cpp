// Detached threads, the ordered queue back to the main thread, and serial task
// queues. The main-thread queue hands work over under a std::mutex and wakes
// the event loop through a pipe watched by a QSocketNotifier, so nothing of the
// work's data crosses threads inside the toolkit.
#include "TerminalThreads.h"

#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QPointer>
#include <QSocketNotifier>
#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace hl {

namespace {

std::atomic<int> detachedTasks{0};

// Work waiting for the main thread, and the pipe that announces it.
struct MainThreadQueue {
    std::mutex lock;
    std::deque<std::function<void()>> work;
    int readFd = -1;
    int writeFd = -1;
    QPointer<QSocketNotifier> notifier;  // touched on the main thread only

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

    // Runs queued work on the main thread, one item at a time from the shared
    // queue, so that an item that opens a nested event loop (a dialog) lets the
    // items after it run there in their order, never before earlier ones. An
    // item that throws is dropped; the rest still run.
    void drain() {
        char buffer[64];
        while (::read(readFd, buffer, sizeof buffer) > 0) {
        }
        for (;;) {
            std::function<void()> item;
            {
                std::lock_guard guard(lock);
                if (work.empty()) return;
                item = std::move(work.front());
                work.pop_front();
            }
            try {
                item();
            } catch (const std::exception& error) {
                qWarning("harborlattice: main-thread work failed: %s", error.what());
            } catch (...) {
                qWarning("harborlattice: main-thread work failed");
            }
        }
    }
};

// Never destroyed: detached threads may post to it while the process exits.
MainThreadQueue& mainThreadQueue() {
    static auto* queue = new MainThreadQueue();
    return *queue;
}

}  // namespace

void runDetached(std::function<void()> work) {
    detachedTasks.fetch_add(1);
    try {
        std::thread([work = std::move(work)]() mutable {
            work();
            work = nullptr;
            detachedTasks.fetch_sub(1);
        }).detach();
    } catch (...) {
        detachedTasks.fetch_sub(1);
        throw;
    }
}

int detachedTaskCount() {
    return detachedTasks.load();
}

void postToMainThread(std::function<void()> work) {
    auto& queue = mainThreadQueue();
    bool wasEmpty = false;
    {
        std::lock_guard guard(queue.lock);
        wasEmpty = queue.work.empty();
        queue.work.push_back(std::move(work));
    }
    if (wasEmpty) {
        const char wake = 1;
        while (::write(queue.writeFd, &wake, 1) < 0 && errno == EINTR) {
        }
    }
}

void installMainThreadQueue() {
    auto& queue = mainThreadQueue();
    auto* application = QCoreApplication::instance();
    if (queue.notifier || application == nullptr) return;
    queue.notifier = new QSocketNotifier(queue.readFd, QSocketNotifier::Read, application);
    QObject::connect(queue.notifier, &QSocketNotifier::activated, application,
                     [&queue] { queue.drain(); });
    // Work queued before the notifier existed may already have written its byte.
    QMetaObject::invokeMethod(
        application, [&queue] { queue.drain(); }, Qt::QueuedConnection);
}

struct SerialTaskQueue::State {
    std::mutex lock;
    std::deque<std::function<void()>> tasks;
    bool running = false;
};

SerialTaskQueue::SerialTaskQueue() : state_(std::make_shared<State>()) {}

void SerialTaskQueue::enqueue(std::function<void()> task) {
    {
        std::lock_guard guard(state_->lock);
        state_->tasks.push_back(std::move(task));
        if (state_->running) return;
        state_->running = true;
    }
    try {
        runDetached([state = state_] { run(state); });
    } catch (const std::exception&) {
        // No thread now: the tasks stay queued for the next enqueue to start.
        std::lock_guard guard(state_->lock);
        state_->running = false;
    }
}

void SerialTaskQueue::run(const std::shared_ptr<State>& state) {
    {
        for (;;) {
            std::function<void()> next;
            {
                std::lock_guard guard(state->lock);
                if (state->tasks.empty()) {
                    state->running = false;
                    return;
                }
                next = std::move(state->tasks.front());
                state->tasks.pop_front();
            }
            next();
        }
    }
}

}  // namespace hl
