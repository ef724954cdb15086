// Session: reading, writing and retention of one shell's terminal.
#include "Session.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Shell.h"

namespace hl::node {

namespace {
// Bytes read from a terminal with one call.
constexpr std::size_t readChunk = 64 * 1024;
}  // namespace

Session::Session(std::string id, std::string cwd, pid_t shellPid, UniqueFd master, UniqueFd pidfd,
                 Clock::time_point now)
    : id_(std::move(id)),
      directory_(std::move(cwd)),
      shellPid_(shellPid),
      master_(std::move(master)),
      pidfd_(std::move(pidfd)),
      lastPoll_(now) {}

const std::string& Session::directory() {
    if (!shellReaped_) {
        if (auto now = processDirectory(shellPid_)) directory_ = std::move(*now);
    }
    return directory_;
}

UniqueFd Session::openDirectory() {
#if defined(O_PATH)
    const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
#else
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
#endif
#if defined(__linux__)
    if (!shellReaped_) {
        UniqueFd live(::open(("/proc/" + std::to_string(shellPid_) + "/cwd").c_str(), flags));
        if (live) return live;
    }
#endif
    return UniqueFd(::open(directory().c_str(), flags));
}

void Session::markPolled(Clock::time_point now) {
    if (missed_ > 0 && !attended(now)) {
        pending_.release();
        pending_.append(tail_.back(std::min(missed_, tailLimit)));
    }
    missed_ = 0;
    lastPoll_ = now;
}

std::optional<Session::Clock::time_point> Session::flowDeadline(Clock::time_point now) const {
    if (!master_ || pending_.space() > 0 || !attended(now)) return std::nullopt;
    return lastPoll_ + unattendedAfter;
}

void Session::readOutput(std::size_t budget, Clock::time_point now) {
    const bool flowControl = attended(now);
    // Unattended, nobody will poll what pending holds: the tail is enough.
    if (!flowControl && !pending_.empty()) {
        missed_ += pending_.size();
        pending_.release();
    }
    char chunk[readChunk];
    bool readSome = false;
    while (master_ && budget > 0 && (!flowControl || pending_.space() > 0)) {
        const std::size_t want =
            std::min({readChunk, budget, flowControl ? pending_.space() : readChunk});
        const ssize_t n = ::read(master_.get(), chunk, want);
        if (n > 0) {
            const std::string_view bytes(chunk, static_cast<std::size_t>(n));
            if (flowControl)
                pending_.append(bytes);
            else
                missed_ += bytes.size();
            tail_.append(bytes);
            budget -= static_cast<std::size_t>(n);
            readSome = true;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // Nothing more now; after the shell's end that means all is drained.
            if (shellReaped_) drainedAfterExit_ = true;
            break;
        }
        // End of file (EIO on Linux once no process holds the terminal).
        hangUp();
    }
    // Output usually follows a change of directory (the next prompt).
    if (readSome) directory();
}

void Session::writeInput() {
    while (master_ && !input_.empty()) {
        const ssize_t n = ::write(master_.get(), input_.data(), input_.size());
        if (n > 0) {
            input_.erase(0, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        // The terminal refuses input for good: nobody will read it.
        input_.clear();
        return;
    }
}

bool Session::queueInput(const std::string& bytes) {
    if (!master_) return false;
    if (input_.size() + bytes.size() > inputLimit) return false;
    input_ += bytes;
    writeInput();
    return true;
}

bool Session::resize(int cols, int rows) {
    if (!master_) return false;
    winsize size{};
    size.ws_col = static_cast<unsigned short>(cols);
    size.ws_row = static_cast<unsigned short>(rows);
    return ::ioctl(master_.get(), TIOCSWINSZ, &size) == 0;
}

std::string Session::takeOutput(std::size_t count) {
    std::string bytes = pending_.front(count);
    pending_.consume(bytes.size());
    // A quiet session gives back the memory of a past burst.
    if (pending_.empty() && bytes.size() < 64 * 1024) pending_.release();
    return bytes;
}

std::string Session::replay(std::size_t count) {
    pending_.release();
    return tail_.back(count);
}

void Session::shellEnded(Clock::time_point now, std::optional<int> waitStatus) {
    reapedAt_ = processClockNow();
    shellReaped_ = true;
    if (waitStatus && WIFEXITED(*waitStatus)) exitStatus_ = WEXITSTATUS(*waitStatus);
    if (waitStatus && WIFSIGNALED(*waitStatus)) exitStatus_ = 128 + WTERMSIG(*waitStatus);
    readOutput(pending_.space(), now);
}

std::optional<std::string> Session::currentDirectory() const {
    if (shellReaped_) return std::nullopt;
    char target[4096];
    const std::string link = "/proc/" + std::to_string(shellPid_) + "/cwd";
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target) return std::nullopt;
    return std::string(target, static_cast<std::size_t>(length));
}

bool Session::exited() const {
    return shellReaped_ && pending_.empty() && (!master_ || drainedAfterExit_);
}

void Session::hangUp() {
    master_.reset();
    input_.clear();
}

}  // namespace hl::node
