// Shell: starting the user's shell in a new pseudo-terminal, and signalling
// every process that runs in a shell's session.
//
// Words used here: the *session* of a shell is the kernel's session that the
// shell leads (its id is the shell's pid); *groups* are the process groups in
// it: the shell's own and one per job it started.
#pragma once

#include <sys/types.h>

#include <string>
#include <variant>

#include "UniqueFd.h"

namespace hl::node {

struct ShellProcess {
    pid_t pid = -1;
    UniqueFd master;  // non-blocking, closed on exec
};

// The user's login shell from the password database, else /bin/sh.
std::string userShell();

// Starts the user's shell as a login shell in a pseudo-terminal of the given
// size, in directory cwd; gives the reason as text when it cannot.
std::variant<ShellProcess, std::string> spawnShell(const std::string& cwd, int cols, int rows);

// Sends signal to every process group of the session led by sessionLeader (the
// leader's own group included); returns how many groups were signalled.
int signalSession(pid_t sessionLeader, int signal);

}  // namespace hl::node
