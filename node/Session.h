// Session: one shell in its pseudo-terminal, as the node holds it between the
// creating request and the closing one.
//
// Words used here: *pending* is output not yet delivered by a poll; the *tail*
// is the newest output, kept for a replay; *input* is bytes accepted from
// clients and not yet written to the terminal. The terminal is read only while
// pending has room, so a client that stops polling holds the shell back just as
// a stopped real terminal would. A session has *exited* once its shell has been
// reaped and every byte the shell wrote has been delivered.
#pragma once

#include <sys/types.h>

#include <string>

#include "RingBuffer.h"
#include "UniqueFd.h"

namespace hl::node {

class Session {
  public:
    // Most undelivered output kept: two full replies, so that a client that
    // polls at once after a full reply finds the next one ready.
    static constexpr std::size_t pendingLimit = 12'000'000;
    // Newest output kept for a replay.
    static constexpr std::size_t tailLimit = 4 * 1024 * 1024;
    // Most input kept waiting for the terminal to accept it.
    static constexpr std::size_t inputLimit = 8 * 1024 * 1024;

    Session(std::string id, std::string cwd, pid_t shellPid, UniqueFd master);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& id() const { return id_; }
    const std::string& cwd() const { return cwd_; }
    pid_t shellPid() const { return shellPid_; }
    int masterFd() const { return master_.get(); }

    // Whether the terminal is still open (it closes once nobody holds its other end).
    bool hasTerminal() const { return static_cast<bool>(master_); }
    // Whether the event loop should watch the terminal for output.
    bool wantsOutput() const { return master_ && pending_.space() > 0; }
    // Whether the event loop should watch the terminal for room to write input.
    bool wantsToWrite() const { return master_ && !input_.empty(); }

    // Reads what the terminal has, at most budget bytes and what pending has room for.
    void readOutput(std::size_t budget);
    // Writes as much waiting input as the terminal takes.
    void writeInput();
    // Queues input and tries to write it at once; false when the queue is full
    // or the terminal has gone.
    bool queueInput(const std::string& bytes);
    // Sets the terminal's size; false when the terminal has gone.
    bool resize(int cols, int rows);

    // Takes up to count bytes of pending output.
    std::string takeOutput(std::size_t count);
    // The newest count bytes of the tail; pending output is dropped, since the
    // replay already shows it.
    std::string replay(std::size_t count);

    // Records that the shell has been reaped and drains what it left behind.
    void shellEnded();
    bool exited() const;

  private:
    // Closes the terminal after it reported end of file.
    void hangUp();

    std::string id_;
    std::string cwd_;
    pid_t shellPid_;
    UniqueFd master_;
    RingBuffer pending_{pendingLimit};
    RingBuffer tail_{tailLimit};
    std::string input_;
    bool shellReaped_ = false;
    bool drainedAfterExit_ = false;
};

}  // namespace hl::node
