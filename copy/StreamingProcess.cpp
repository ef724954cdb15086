// StreamingProcess: posix_spawn with two pipes and one reading thread per
// child. The thread polls both pipes and the child's exit; after the exit it
// drains what the pipes still hold, then reports the status. The child stays a
// zombie until the thread has marked it exited under the lifecycle lock, so a
// terminate() can never signal a process id that was already reused.
#include "StreamingProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "UniqueFd.h"

extern char** environ;

namespace hl {

void LockedData::append(const QByteArray& bytes) {
    std::lock_guard guard(lock_);
    data_.append(bytes);
    if (data_.size() > maximumBytes) data_.remove(0, data_.size() - maximumBytes);
}

QByteArray LockedData::value() const {
    std::lock_guard guard(lock_);
    return QByteArray(data_.constData(), data_.size());
}

namespace {

bool makePipe(int fds[2]) {
#ifdef __linux__
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
#else
    if (::pipe(fds) != 0) return false;
    for (int i = 0; i < 2; ++i)
        ::fcntl(fds[i], F_SETFD, FD_CLOEXEC);
#endif
    ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    return true;
}

// A descriptor that becomes readable when the child exits, where the system has one.
int openExitDescriptor(pid_t pid) {
#if defined(__linux__) && defined(SYS_pidfd_open)
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    return -1;
#endif
}

bool childHasExited(pid_t pid) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno != EINTR;
    return info.si_pid == pid;
}

// Reads what is available; false once the pipe has reached its end.
bool readAvailable(int fd, const StreamingProcess::Output& deliver) {
    char buffer[65536];
    while (true) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            deliver(QByteArray(buffer, static_cast<qsizetype>(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

std::vector<std::string> environmentWith(const std::map<QString, std::optional<QString>>& changes) {
    std::vector<std::string> entries;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string text = *entry;
        const auto name = QString::fromStdString(text.substr(0, text.find('=')));
        if (!changes.count(name)) entries.push_back(text);
    }
    for (const auto& [name, value] : changes)
        if (value) entries.push_back((name + "=" + *value).toStdString());
    return entries;
}

}  // namespace

StreamingProcess::StreamingProcess(QString executable, QStringList arguments,
                                   std::map<QString, std::optional<QString>> environmentChanges)
    : executable_(std::move(executable)),
      arguments_(std::move(arguments)),
      environmentChanges_(std::move(environmentChanges)) {}

StreamingProcess::~StreamingProcess() {
    terminate();
    if (!reader_.joinable()) return;
    if (reader_.get_id() == std::this_thread::get_id())
        reader_.detach();
    else
        reader_.join();
}

void StreamingProcess::terminate() {
    std::lock_guard guard(lifecycleLock_);
    cancellationWasRequested_ = true;
    if (pid_ > 0 && !exited_ && ::kill(-pid_, SIGTERM) != 0) ::kill(pid_, SIGTERM);
}

void StreamingProcess::markExited() {
    std::lock_guard guard(lifecycleLock_);
    exited_ = true;
}

void StreamingProcess::run(Output onStandardOutput, Output onStandardError,
                           std::function<void(Result)> onExit) {
    int out[2], err[2];
    if (!makePipe(out)) {
        onExit(CopyPlatformError{"Could not create a pipe: " + QString(std::strerror(errno))});
        return;
    }
    UniqueFd outRead(out[0]), outWrite(out[1]);
    if (!makePipe(err)) {
        onExit(CopyPlatformError{"Could not create a pipe: " + QString(std::strerror(errno))});
        return;
    }
    UniqueFd errRead(err[0]), errWrite(err[1]);

    const std::string path = executable_.toStdString();
    std::vector<std::string> argumentTexts{path};
    for (const auto& argument : arguments_)
        argumentTexts.push_back(argument.toStdString());
    std::vector<char*> argv;
    for (auto& text : argumentTexts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    std::vector<std::string> environment = environmentWith(environmentChanges_);
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outWrite.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, errWrite.get(), 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::optional<Result> failure;
    {
        std::lock_guard guard(lifecycleLock_);
        if (cancellationWasRequested_) {
            failure = CopyCancelled{};
        } else {
            pid_t pid = -1;
            const int status =
                ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), envp.data());
            if (status == 0)
                pid_ = pid;
            else
                failure = CopyPlatformError{"Could not start " + executable_ + ": " +
                                            QString(std::strerror(status))};
        }
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failure) {
        onExit(*failure);
        return;
    }
    outWrite.reset();
    errWrite.reset();
    reader_ = std::thread([this, outFd = outRead.release(), errFd = errRead.release(),
                           onOut = std::move(onStandardOutput), onErr = std::move(onStandardError),
                           onExit = std::move(onExit)]() mutable {
        readUntilExit(outFd, errFd, std::move(onOut), std::move(onErr), std::move(onExit));
    });
}

void StreamingProcess::readUntilExit(int outFd, int errFd, Output onOut, Output onErr,
                                     std::function<void(Result)> onExit) {
    UniqueFd out(outFd), err(errFd);
    pid_t pid;
    {
        std::lock_guard guard(lifecycleLock_);
        pid = pid_;
    }
    UniqueFd exitFd(openExitDescriptor(pid));
    bool outOpen = true, errOpen = true;
    while (true) {
        pollfd fds[3];
        nfds_t count = 0;
        if (outOpen) fds[count++] = {out.get(), POLLIN, 0};
        if (errOpen) fds[count++] = {err.get(), POLLIN, 0};
        if (exitFd) fds[count++] = {exitFd.get(), POLLIN, 0};
        const int timeout = exitFd ? -1 : 20;
        if (count > 0 && ::poll(fds, count, timeout) < 0 && errno != EINTR) break;
        if (count == 0) ::usleep(20000);
        if (outOpen) outOpen = readAvailable(out.get(), onOut);
        if (errOpen) errOpen = readAvailable(err.get(), onErr);
        if (childHasExited(pid)) break;
    }
    markExited();
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (outOpen) readAvailable(out.get(), onOut);
    if (errOpen) readAvailable(err.get(), onErr);
    onExit(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
}

}  // namespace hl
