// PollingToken: the one object a poll loop shares with the main thread. It
// says whether the loop must stop, and lets input wake the loop's sleep early.
// A loop blocked in a waiting poll registers how to interrupt it, so that a
// cancel ends the poll at once instead of after its wait.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <semaphore>

namespace hl {

class PollingToken {
  public:
    // Marks the loop as cancelled and wakes its sleep.
    void cancel();
    // Ends the current sleep, or the next one if the loop is not sleeping:
    // each wake is kept and shortens one sleep.
    void wake();
    // Sleeps until woken or until `duration` has passed.
    void wait(std::chrono::milliseconds duration);
    bool isCancelled() const;
    // Sets what cancel() calls to end a blocking poll (empty: nothing); called
    // at once when the token is cancelled already. The call runs under the
    // token's lock, so it must be short and must not touch the token.
    void setInterrupt(std::function<void()> interrupt);

  private:
    mutable std::mutex lock_;
    std::function<void()> interrupt_;
    std::counting_semaphore<> signal_{0};
    bool cancelled_ = false;
};

}  // namespace hl
