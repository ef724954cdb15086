// Shell start and session-wide signals.
//
// The child becomes the leader of a new session with the pseudo-terminal as its
// controlling terminal, gets default signal dispositions, an empty signal mask
// (the node ignores SIGHUP and SIGPIPE, and ignored dispositions would survive
// exec) and the user's open-file limit, keeps only the terminal as its
// descriptors 0 to 2 (and the report pipe until exec), checks and enters the
// directory, and runs the shell with TERM=xterm-256color and COLORTERM=truecolor.
// The terminal starts in the modes of a real one: cooked input, UTF-8 aware
// erasing (IUTF8) and DEL as the erase character, which is what Backspace sends.
#include "Shell.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <time.h>
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

// The modes of a freshly opened real terminal, with UTF-8 erasing.
termios terminalModes() {
    termios modes{};
    modes.c_iflag = ICRNL | IXON | IXANY | IMAXBEL | BRKINT;
#ifdef IUTF8
    modes.c_iflag |= IUTF8;
#endif
    modes.c_oflag = OPOST | ONLCR;
    modes.c_cflag = CREAD | CS8 | HUPCL;
    modes.c_lflag = ICANON | ISIG | IEXTEN | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE;
    modes.c_cc[VINTR] = 0x03;
    modes.c_cc[VQUIT] = 0x1c;
    modes.c_cc[VERASE] = 0x7f;
    modes.c_cc[VKILL] = 0x15;
    modes.c_cc[VEOF] = 0x04;
    modes.c_cc[VSTART] = 0x11;
    modes.c_cc[VSTOP] = 0x13;
    modes.c_cc[VSUSP] = 0x1a;
    modes.c_cc[VREPRINT] = 0x12;
    modes.c_cc[VWERASE] = 0x17;
    modes.c_cc[VLNEXT] = 0x16;
    modes.c_cc[VDISCARD] = 0x0f;
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    ::cfsetispeed(&modes, B38400);
    ::cfsetospeed(&modes, B38400);
    return modes;
}

// Where a start failed, as the child reports it.
enum class StartStage : int { Missing = 1, NotDirectory, Enter, Exec, Terminal };

struct StartReport {
    int stage;
    int error;
};

// The descriptor that carries the report in the child, after the standard three.
constexpr int reportDescriptor = 3;

// Closes every descriptor above the report pipe in the child.
void closeOtherDescriptors() {
#if defined(__linux__) && defined(SYS_close_range)
    if (::syscall(SYS_close_range, reportDescriptor + 1U, ~0U, 0U) == 0) return;
#endif
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = reportDescriptor + 1; fd < (limit > 0 ? limit : 1024); ++fd)
        ::close(fd);
}

// Writes the report to fd and ends the child.
[[noreturn]] void failStart(int fd, StartStage stage, int error) {
    const StartReport report{static_cast<int>(stage), error};
    [[maybe_unused]] const ssize_t ignored = ::write(fd, &report, sizeof report);
    ::_exit(stage == StartStage::Exec ? 127 : 126);
}

// The child's side of spawnShell; never returns. Only async-signal-safe calls.
[[noreturn]] void runChild(int slave, int report, const char* cwd, const char* path,
                           char* const argv[], char* const envp[], const rlimit* descriptorLimit) {
    for (int sig = 1; sig < NSIG; ++sig)
        ::signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    if (::setsid() < 0) failStart(report, StartStage::Terminal, errno);
    if (::ioctl(slave, TIOCSCTTY, 0) < 0) failStart(report, StartStage::Terminal, errno);
    for (int fd = 0; fd < 3; ++fd) {
        if (::dup2(slave, fd) < 0) failStart(report, StartStage::Terminal, errno);
    }
    // The report pipe moves to descriptor 3, the only one kept beside 0 to 2.
    if (report != reportDescriptor && ::dup2(report, reportDescriptor) < 0) {
        failStart(report, StartStage::Terminal, errno);
    }
    ::fcntl(reportDescriptor, F_SETFD, FD_CLOEXEC);
    closeOtherDescriptors();
    const int fd = reportDescriptor;

    struct stat info;
    if (::stat(cwd, &info) != 0) {
        failStart(fd, errno == ENOENT || errno == ENOTDIR ? StartStage::Missing : StartStage::Enter,
                  errno);
    }
    if (!S_ISDIR(info.st_mode)) failStart(fd, StartStage::NotDirectory, 0);
    if (::chdir(cwd) < 0) failStart(fd, StartStage::Enter, errno);
    if (descriptorLimit) ::setrlimit(RLIMIT_NOFILE, descriptorLimit);
    ::execve(path, argv, envp);
    failStart(fd, StartStage::Exec, errno);
}

// Reads one field past the command name of /proc/<pid>/stat: state, parent,
// group, session and start time.
struct ProcessStat {
    long group = 0;
    long session = 0;
    unsigned long long started = 0;
};

std::optional<ProcessStat> readProcessStat(const char* pid) {
    std::ifstream stat(std::string("/proc/") + pid + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return std::nullopt;
    // "pid (comm) state ppid pgrp session ...": comm may hold anything, so
    // the fields are read after its last parenthesis.
    const auto close = line.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    ProcessStat result;
    char state = 0;
    long ppid = 0;
    if (std::sscanf(line.c_str() + close + 1,
                    " %c %ld %ld %ld %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d "
                    "%llu",
                    &state, &ppid, &result.group, &result.session, &result.started) != 5) {
        return std::nullopt;
    }
    return result;
}

// The groups of the session with a process started no later than startedBy.
std::set<pid_t> sessionGroups(pid_t sessionLeader, unsigned long long startedBy) {
    std::set<pid_t> groups;
#if defined(__linux__)
    DIR* proc = ::opendir("/proc");
    if (!proc) return groups;
    while (dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        const auto stat = readProcessStat(entry->d_name);
        if (stat && stat->session == sessionLeader && stat->started <= startedBy)
            groups.insert(static_cast<pid_t>(stat->group));
    }
    ::closedir(proc);
#elif defined(__APPLE__)
    (void)startedBy;
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

// A pidfd of the child, or none where the system has no pidfd_open.
UniqueFd openPidfd(pid_t pid) {
#if defined(__linux__) && defined(SYS_pidfd_open)
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
#else
    (void)pid;
    return UniqueFd();
#endif
}

}  // namespace

ShellSetup readShellSetup(std::optional<rlimit> descriptorLimit) {
    ShellSetup setup{"/bin/sh", descriptorLimit};
    if (const passwd* entry = ::getpwuid(::getuid())) {
        if (entry->pw_shell && entry->pw_shell[0] == '/' && ::access(entry->pw_shell, X_OK) == 0) {
            setup.program = entry->pw_shell;
        }
    }
    return setup;
}

std::variant<ShellProcess, std::string> spawnShell(const ShellSetup& setup, const std::string& cwd,
                                                   int cols, int rows) {
    const std::string& shell = setup.program;
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
    termios modes = terminalModes();
    if (::openpty(&master, &slave, nullptr, &modes, &size) != 0) {
        return std::string("cannot open a pseudo-terminal: ") + std::strerror(errno);
    }
    UniqueFd masterFd(master), slaveFd(slave);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);

    int ends[2];
    if (::pipe(ends) != 0) return std::string("cannot open a pipe: ") + std::strerror(errno);
    UniqueFd reportRead(ends[0]), reportWrite(ends[1]);
    for (int fd : ends)
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ::fcntl(ends[0], F_SETFL, ::fcntl(ends[0], F_GETFL) | O_NONBLOCK);

    // Signals stay blocked across fork so that no handler of the node runs in
    // the child before its dispositions are reset.
    sigset_t all, previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    const rlimit* limit = setup.descriptorLimit ? &*setup.descriptorLimit : nullptr;
    const pid_t pid = ::fork();
    if (pid == 0) {
        runChild(slave, reportWrite.get(), cwd.c_str(), shell.c_str(), argv, envp.data(), limit);
    }
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) return std::string("cannot start a process: ") + std::strerror(forkError);

    return ShellProcess{pid, std::move(masterFd), std::move(reportRead), openPidfd(pid)};
}

std::optional<std::string> readStartReport(int reportFd, const std::string& cwd) {
    StartReport report{};
    ssize_t n;
    do {
        n = ::read(reportFd, &report, sizeof report);
    } while (n < 0 && errno == EINTR);
    if (n == 0) return std::nullopt;  // closed on exec: the shell runs
    if (n != static_cast<ssize_t>(sizeof report)) return "the shell did not start";
    const std::string reason = report.error ? std::string(": ") + std::strerror(report.error) : "";
    switch (static_cast<StartStage>(report.stage)) {
        case StartStage::Missing:
            return "cwd does not exist: " + cwd;
        case StartStage::NotDirectory:
            return "cwd is not a directory: " + cwd;
        case StartStage::Enter:
            return "cwd cannot be entered: " + cwd + reason;
        case StartStage::Exec:
            return "cannot run the shell" + reason;
        case StartStage::Terminal:
            return "cannot attach the terminal" + reason;
    }
    return "the shell did not start";
}

std::optional<std::string> processDirectory(pid_t pid) {
#if defined(__linux__)
    char target[4096];
    const std::string link = "/proc/" + std::to_string(pid) + "/cwd";
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target);
    if (n <= 0 || n >= static_cast<ssize_t>(sizeof target)) return std::nullopt;
    return std::string(target, static_cast<std::size_t>(n));
#elif defined(__APPLE__)
    proc_vnodepathinfo info{};
    if (::proc_pidinfo(pid, PROC_PIDVNODEPATHINFO, 0, &info, sizeof info) != sizeof info)
        return std::nullopt;
    return std::string(info.pvi_cdir.vip_path);
#endif
}

unsigned long long processClockNow() {
    timespec now{};
#if defined(CLOCK_BOOTTIME)
    ::clock_gettime(CLOCK_BOOTTIME, &now);
#else
    ::clock_gettime(CLOCK_MONOTONIC, &now);
#endif
    const long ticks = ::sysconf(_SC_CLK_TCK);
    return static_cast<unsigned long long>(now.tv_sec) * static_cast<unsigned long long>(ticks) +
           static_cast<unsigned long long>(now.tv_nsec) * static_cast<unsigned long long>(ticks) /
               1'000'000'000ULL;
}

std::optional<unsigned long long> processStartTime(pid_t pid) {
#if defined(__linux__)
    const auto stat = readProcessStat(std::to_string(pid).c_str());
    if (!stat) return std::nullopt;
    return stat->started;
#else
    (void)pid;
    return std::nullopt;
#endif
}

bool sessionHasOwnProcess(pid_t sessionLeader) {
#if defined(__linux__)
    DIR* proc = ::opendir("/proc");
    if (!proc) return false;
    bool found = false;
    while (dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        const auto stat = readProcessStat(entry->d_name);
        struct stat owner;
        if (stat && stat->session == sessionLeader &&
            ::stat((std::string("/proc/") + entry->d_name).c_str(), &owner) == 0 &&
            owner.st_uid == ::geteuid()) {
            found = true;
            break;
        }
    }
    ::closedir(proc);
    return found;
#else
    (void)sessionLeader;
    return false;
#endif
}

int signalSession(pid_t sessionLeader, int signal, unsigned long long startedBy) {
    const std::set<pid_t> groups = sessionGroups(sessionLeader, startedBy);
    int signalled = 0;
    for (pid_t group : groups) {
        if (group > 1 && ::kill(-group, signal) == 0) ++signalled;
    }
    return signalled;
}

}  // namespace hl::node
