// PollingToken: a flag under a lock and a counting semaphore.
#include "PollingToken.h"

namespace hl {

void PollingToken::cancel() {
    {
        std::lock_guard guard(lock_);
        cancelled_ = true;
    }
    signal_.release();
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
