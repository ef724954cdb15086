// PollingToken: the one object a poll loop shares with the main thread. It
// says whether the loop must stop, and lets input wake the loop's sleep early.
#pragma once

#include <chrono>
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

  private:
    mutable std::mutex lock_;
    std::counting_semaphore<> signal_{0};
    bool cancelled_ = false;
};

}  // namespace hl
