// Session: one shell in its pseudo-terminal, as the node holds it between the
// creating request and the closing one.
//
// Words used here: *pending* is output not yet delivered by a poll; the *tail*
// is the newest output, kept for a replay; *input* is bytes accepted from
// clients and not yet written to the terminal. A session is *attended* while
// polls come (the last one less than unattendedAfter ago): then the terminal is
// read only while pending has room, so a slow client holds the shell back as a
// real terminal would, and nothing is lost. Unattended, the terminal is read at
// full speed into the tail alone, so a shell never stops for want of a reader;
// the *missed* output is handed to the next poll from the tail, as far as the
// tail reaches.
// A session has *exited* once its shell has been reaped and every byte the
// shell wrote has been delivered. Its *directory* is where its shell is now (as
// last seen while the shell ran).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "RingBuffer.h"
#include "UniqueFd.h"

namespace hl::node {

class Session {
  public:
    using Clock = std::chrono::steady_clock;
    // A session with no poll for this long is read without flow control.
    static constexpr std::chrono::seconds unattendedAfter{10};
    // Most undelivered output kept: two full replies, so that a client that
    // polls at once after a full reply finds the next one ready.
    static constexpr std::size_t pendingLimit = 12'000'000;
    // Newest output kept for a replay.
    static constexpr std::size_t tailLimit = 4 * 1024 * 1024;
    // Most input kept waiting for the terminal to accept it.
    static constexpr std::size_t inputLimit = 8 * 1024 * 1024;

    Session(std::string id, std::string cwd, pid_t shellPid, UniqueFd master, UniqueFd pidfd,
            Clock::time_point now);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& id() const { return id_; }
    // The shell's directory, refreshed from the system while the shell runs.
    const std::string& directory();
    // The shell's directory itself, opened for lookups only (still the same
    // directory when it has been deleted or renamed since); empty when unknown.
    UniqueFd openDirectory();
    pid_t shellPid() const { return shellPid_; }
    int masterFd() const { return master_.get(); }
    // Takes the shell's pidfd (for the kill after a close).
    UniqueFd takePidfd() { return std::move(pidfd_); }
    // The node's record of the shell (see SessionRecords), empty when none.
    const std::string& record() const { return record_; }
    void setRecord(std::string record) { record_ = std::move(record); }
    // When the shell was reaped, in process clock ticks (0 while it runs).
    unsigned long long reapedAt() const { return reapedAt_; }

    // Whether the terminal is still open (it closes once nobody holds its other end).
    bool hasTerminal() const { return static_cast<bool>(master_); }
    // Whether the event loop should watch the terminal for output.
    bool wantsOutput(Clock::time_point now) const {
        return master_ && (pending_.space() > 0 || !attended(now));
    }
    // Whether the event loop should watch the terminal for room to write input.
    bool wantsToWrite() const { return master_ && !input_.empty(); }
    // Whether a poll came within unattendedAfter.
    bool attended(Clock::time_point now) const { return now - lastPoll_ < unattendedAfter; }
    // When an attended session held back by a full pending becomes unattended.
    std::optional<Clock::time_point> flowDeadline(Clock::time_point now) const;
    // Records a poll: flow control resumes, and what was read unattended (as
    // much of it as the tail still holds) becomes pending again.
    void markPolled(Clock::time_point now);
    // Records a replay, which shows the tail itself.
    void markReplayed(Clock::time_point now) {
        lastPoll_ = now;
        missed_ = 0;
    }

    // Reads what the terminal has, at most budget bytes (and, attended, what
    // pending has room for).
    void readOutput(std::size_t budget, Clock::time_point now);
    // Writes as much waiting input as the terminal takes.
    void writeInput();
    // Queues input and tries to write it at once; false when the queue is full
    // or the terminal has gone.
    bool queueInput(const std::string& bytes);
    // Sets the terminal's size; false when the terminal has gone.
    bool resize(int cols, int rows);

    // Whether output waits for a poll.
    bool hasOutput() const { return !pending_.empty(); }
    // Takes up to count bytes of pending output.
    std::string takeOutput(std::size_t count);
    // The newest count bytes of the tail; pending output is dropped, since the
    // replay already shows it.
    std::string replay(std::size_t count);

    // Records that the shell has been reaped (with its wait status, when
    // known) and drains what it left behind.
    void shellEnded(Clock::time_point now, std::optional<int> waitStatus = std::nullopt);
    bool exited() const;
    // The shell's exit status as a shell gives it (128 plus the signal for a
    // shell ended by one); absent while it runs or when unknown.
    std::optional<int> exitStatus() const { return exitStatus_; }
    // The directory the shell is in now; absent when it cannot be read.
    std::optional<std::string> currentDirectory() const;

  private:
    // Closes the terminal after it reported end of file.
    void hangUp();

    std::string id_;
    std::string directory_;
    std::string record_;
    pid_t shellPid_;
    UniqueFd master_;
    UniqueFd pidfd_;
    Clock::time_point lastPoll_;
    unsigned long long reapedAt_ = 0;
    std::size_t missed_ = 0;
    RingBuffer pending_{pendingLimit};
    RingBuffer tail_{tailLimit};
    std::string input_;
    bool shellReaped_ = false;
    std::optional<int> exitStatus_;
    bool drainedAfterExit_ = false;
};

}  // namespace hl::node
