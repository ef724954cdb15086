// PollingToken: a flag under a lock and a counting semaphore.
#include "PollingToken.h"

namespace hl {

void PollingToken::cancel() {
    {
        std::lock_guard guard(lock_);
        cancelled_ = true;
        if (interrupt_) interrupt_();
    }
    signal_.release();
}

void PollingToken::setInterrupt(std::function<void()> interrupt) {
    std::lock_guard guard(lock_);
    interrupt_ = std::move(interrupt);
    if (cancelled_ && interrupt_) interrupt_();
}

void PollingToken::wake() {
    signal_.release();
}

void PollingToken::wait(std::chrono::milliseconds duration) {
    (void)signal_.try_acquire_for(duration);
}

bool PollingToken::isCancelled() const {
    std::lock_guard guard(lock_);
    return cancelled_;
}

}  // namespace hl
