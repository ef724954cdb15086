// Shell start and session-wide signals.
//
// The child becomes the leader of a new session with the pseudo-terminal as its
// controlling terminal, gets default signal dispositions and an empty signal
// mask (the node ignores SIGHUP and SIGPIPE, and ignored dispositions would
// survive exec), keeps only the terminal as its descriptors 0 to 2, and runs the
// shell with TERM=xterm-256color and COLORTERM=truecolor.
#include "Shell.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <libproc.h>
#include <util.h>
#else
#include <pty.h>
#include <sys/syscall.h>
#endif

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <vector>

extern char** environ;

namespace hl::node {

namespace {

// The environment of a shell: the node's own with the terminal's variables set.
std::vector<std::string> shellEnvironment(const std::string& shell, const std::string& cwd) {
    const std::set<std::string> replaced = {"TERM", "COLORTERM", "PWD", "SHELL"};
    std::vector<std::string> entries;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (!replaced.contains(text.substr(0, text.find('=')))) entries.push_back(text);
    }
    entries.push_back("TERM=xterm-256color");
    entries.push_back("COLORTERM=truecolor");
    entries.push_back("PWD=" + cwd);
    entries.push_back("SHELL=" + shell);
    return entries;
}

// Closes every descriptor from 3 upwards in the child.
void closeOtherDescriptors() {
#if defined(__linux__) && defined(SYS_close_range)
    if (::syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = 3; fd < (limit > 0 ? limit : 1024); ++fd)
        ::close(fd);
}

// The child's side of spawnShell; never returns.
[[noreturn]] void runChild(int slave, const char* cwd, const char* path, char* const argv[],
                           char* const envp[]) {
    for (int sig = 1; sig < NSIG; ++sig)
        ::signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    if (::setsid() < 0) ::_exit(126);
    if (::ioctl(slave, TIOCSCTTY, 0) < 0) ::_exit(126);
    for (int fd = 0; fd < 3; ++fd) {
        if (::dup2(slave, fd) < 0) ::_exit(126);
    }
    closeOtherDescriptors();
    if (::chdir(cwd) < 0) ::_exit(126);
    ::execve(path, argv, envp);
    ::_exit(127);
}

// The groups of the session, read from the process table.
std::set<pid_t> sessionGroups(pid_t sessionLeader) {
    std::set<pid_t> groups;
#if defined(__linux__)
    DIR* proc = ::opendir("/proc");
    if (!proc) return groups;
    while (dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string line;
        if (!std::getline(stat, line)) continue;
        // "pid (comm) state ppid pgrp session ...": comm may hold anything, so
        // the fields are read after its last parenthesis.
        const auto close = line.rfind(')');
        if (close == std::string::npos) continue;
        char state = 0;
        long ppid = 0, pgrp = 0, session = 0;
        if (std::sscanf(line.c_str() + close + 1, " %c %ld %ld %ld", &state, &ppid, &pgrp,
                        &session) != 4) {
            continue;
        }
        if (session == sessionLeader) groups.insert(static_cast<pid_t>(pgrp));
    }
    ::closedir(proc);
#elif defined(__APPLE__)
    std::vector<pid_t> pids(4096);
    const int count =
        ::proc_listallpids(pids.data(), static_cast<int>(pids.size() * sizeof(pid_t)));
    for (int i = 0; i < count; ++i) {
        if (pids[i] > 0 && ::getsid(pids[i]) == sessionLeader) {
            const pid_t group = ::getpgid(pids[i]);
            if (group > 0) groups.insert(group);
        }
    }
#endif
    return groups;
}

}  // namespace

std::string userShell() {
    if (const passwd* entry = ::getpwuid(::getuid())) {
        if (entry->pw_shell && entry->pw_shell[0] == '/' && ::access(entry->pw_shell, X_OK) == 0) {
            return entry->pw_shell;
        }
    }
    return "/bin/sh";
}

std::variant<ShellProcess, std::string> spawnShell(const std::string& cwd, int cols, int rows) {
    struct stat info;
    if (::stat(cwd.c_str(), &info) != 0) return "cwd does not exist: " + cwd;
    if (!S_ISDIR(info.st_mode)) return "cwd is not a directory: " + cwd;
    if (::access(cwd.c_str(), X_OK) != 0) return "cwd cannot be entered: " + cwd;

    const std::string shell = userShell();
    const std::string base = shell.substr(shell.rfind('/') + 1);
    const std::string loginName = "-" + base;
    std::vector<std::string> environment = shellEnvironment(shell, cwd);
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(loginName.c_str()), nullptr};

    int master = -1, slave = -1;
    winsize size{};
    size.ws_col = static_cast<unsigned short>(cols);
    size.ws_row = static_cast<unsigned short>(rows);
    if (::openpty(&master, &slave, nullptr, nullptr, &size) != 0) {
        return std::string("cannot open a pseudo-terminal: ") + std::strerror(errno);
    }
    UniqueFd masterFd(master), slaveFd(slave);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);

    // Signals stay blocked across fork so that no handler of the node runs in
    // the child before its dispositions are reset.
    sigset_t all, previous;
    sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, &previous);
    const pid_t pid = ::fork();
    if (pid == 0) runChild(slave, cwd.c_str(), shell.c_str(), argv, envp.data());
    const int forkError = errno;
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) return std::string("cannot start a process: ") + std::strerror(forkError);

    return ShellProcess{pid, std::move(masterFd)};
}

int signalSession(pid_t sessionLeader, int signal) {
    const std::set<pid_t> groups = sessionGroups(sessionLeader);
    int signalled = 0;
    for (pid_t group : groups) {
        if (group > 1 && ::kill(-group, signal) == 0) ++signalled;
    }
    return signalled;
}

}  // namespace hl::node
