// Where a terminal's work runs. Blocking node requests run on detached threads
// of their own (never on the main thread, never in a shared pool that other
// work can fill); their results come back to the main thread's Qt event loop
// through one ordered queue, and each result re-checks its receiver there.
#pragma once

#include <functional>
#include <memory>

namespace hl {

// Runs `work` on a new detached thread. Counted in detachedTaskCount() until
// `work` returns.
void runDetached(std::function<void()> work);

// Detached work started and not yet finished, process-wide (for orderly exits
// and tests).
int detachedTaskCount();

// Queues `work` for the main thread's event loop. Callable from any thread;
// work runs in the order it was queued. Work queued before
// installMainThreadQueue() waits for it.
void postToMainThread(std::function<void()> work);

// Connects the queue to the running QCoreApplication. Call on the main thread;
// further calls do nothing while that application lives.
void installMainThreadQueue();

// Runs tasks one after another on a detached thread that lives while tasks are
// waiting, so that a terminal's keystrokes reach the node in the order typed.
class SerialTaskQueue {
  public:
    SerialTaskQueue();
    void enqueue(std::function<void()> task);

  private:
    struct State;
    static void run(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

}  // namespace hl
