// ParseWorker: one thread, a job queue and a self-pipe that wakes the loop.
#include "ParseWorker.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace hl::node {

ParseWorker::ParseWorker() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    wake_[0].reset(ends[0]);
    wake_[1].reset(ends[1]);
    for (int fd : ends) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    // The worker takes no signal: they all reach the loop's thread.
    sigset_t all, previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    thread_ = std::thread([this] { work(); });
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

ParseWorker::~ParseWorker() {
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
    }
    wanted_.notify_one();
    thread_.join();
}

void ParseWorker::submit(std::uint64_t ticket, std::string text) {
    {
        std::lock_guard guard(lock_);
        bytesHeld_ += text.size();
        jobs_.emplace_back(ticket, std::move(text));
    }
    wanted_.notify_one();
}

std::vector<ParseWorker::Result> ParseWorker::takeResults() {
    char drained[64];
    while (::read(wake_[0].get(), drained, sizeof drained) > 0) {
    }
    std::lock_guard guard(lock_);
    return std::exchange(results_, {});
}

std::size_t ParseWorker::bytesHeld() const {
    std::lock_guard guard(lock_);
    return bytesHeld_;
}

void ParseWorker::work() {
    std::unique_lock guard(lock_);
    while (true) {
        wanted_.wait(guard, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) return;
        auto [ticket, text] = std::move(jobs_.front());
        jobs_.pop_front();
        guard.unlock();
        Parsed parsed = RequestError{"request could not be parsed"};
        try {
            parsed = parseRequest(text);
        } catch (const std::exception& error) {
            parsed = RequestError{std::string("request could not be parsed: ") + error.what()};
        }
        const std::size_t size = text.size();
        text = std::string();
        guard.lock();
        bytesHeld_ -= size;
        results_.push_back({ticket, std::move(parsed)});
        const char byte = 1;
        [[maybe_unused]] const ssize_t ignored = ::write(wake_[1].get(), &byte, 1);
    }
}

}  // namespace hl::node
