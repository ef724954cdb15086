// Shell: starting the user's shell in a new pseudo-terminal, and signalling
// every process that runs in a shell's session.
//
// Words used here: the *session* of a shell is the kernel's session that the
// shell leads (its id is the shell's pid); *groups* are the process groups in
// it: the shell's own and one per job it started. A *start report* is what the
// child writes to a close-on-exec pipe when it cannot run the shell: nothing
// (the pipe just closes) means the shell runs.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <variant>

#include "UniqueFd.h"

namespace hl::node {

// What every shell is started with, read once when the node starts.
struct ShellSetup {
    std::string program;                    // the user's login shell, else /bin/sh
    std::optional<rlimit> descriptorLimit;  // the user's open-file limit, for the shell
};

// Reads the user's shell from the password database.
ShellSetup readShellSetup(std::optional<rlimit> descriptorLimit);

struct ShellProcess {
    pid_t pid = -1;
    UniqueFd master;  // non-blocking, closed on exec
    UniqueFd report;  // read end of the start report pipe, non-blocking
    UniqueFd pidfd;   // a pidfd of the shell where the system has them
};

// Forks the shell as a login shell in a pseudo-terminal of the given size; the
// child checks and enters cwd itself, so nothing here waits on a file system.
// Gives the reason as text when no process could be started.
std::variant<ShellProcess, std::string> spawnShell(const ShellSetup& setup, const std::string& cwd,
                                                   int cols, int rows);

// Reads the start report once its pipe is readable: absent when the shell
// runs, else the reason it does not, as the create_session error.
std::optional<std::string> readStartReport(int reportFd, const std::string& cwd);

// The process's current working directory, as the system reports it.
std::optional<std::string> processDirectory(pid_t pid);

// The system's clock for process start times (ticks since boot).
unsigned long long processClockNow();

// When the process started, on that clock; absent when it is gone (or has no
// start time the node can read on this system).
std::optional<unsigned long long> processStartTime(pid_t pid);

// Whether a process of this user is still in the session led by sessionLeader.
bool sessionHasOwnProcess(pid_t sessionLeader);

// Sends signal to every process group of the session led by sessionLeader (the
// leader's own group included) that holds a process started no later than
// startedBy, so that a session whose leader's pid was reused is never hit;
// returns how many groups were signalled.
int signalSession(pid_t sessionLeader, int signal, unsigned long long startedBy);

}  // namespace hl::node
