// Listener: folder rights, start-up lock, stale socket replacement, peer checks.
//
// A held lock is not taken for a node at work until a node of this user answers
// on the socket. When none does within heldLockPatience, a lock file of this
// user's own (held by a process that serves nothing) is replaced by a new one;
// one that is another user's, or cannot be opened, is reported with its path
// and the ways out, since this user can do nothing with it here.
//
// The folder and any missing parents are created 0700; an existing folder's mode
// is left as it is (it is not the node's to change). The socket itself is
// created 0600. A socket that answers is taken as served only when its peer is
// this user; another user's listener at the path is a failure.
#include "Listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "PeerCredentials.h"

#ifndef SOCK_CLOEXEC
#define SOCK_CLOEXEC 0  // set by makeNonBlocking where the flag is missing
#endif

namespace hl::node {

namespace {

std::string errorText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Sets the descriptor non-blocking and closed on exec.
void makeNonBlocking(int fd) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// Creates the folder and any missing parents with mode 0700; an existing
// folder is only checked to be one.
std::optional<std::string> prepareFolder(const std::string& folder) {
    struct stat info;
    if (::stat(folder.c_str(), &info) == 0) {
        if (!S_ISDIR(info.st_mode)) return "socket folder is not a directory: " + folder;
        return std::nullopt;
    }
    if (errno != ENOENT) return errorText("cannot inspect socket folder " + folder);
    const auto slash = folder.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        if (auto error = prepareFolder(folder.substr(0, slash))) return error;
    }
    if (::mkdir(folder.c_str(), 0700) != 0) {
        if (errno == EEXIST) return std::nullopt;  // made meanwhile by someone else
        return errorText("cannot create socket folder " + folder);
    }
    ::chmod(folder.c_str(), 0700);
    return std::nullopt;
}

bool fillAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() + 1 > sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

enum class Answer { Nobody, Owner, OtherUser };

// Who, if anyone, accepts connections on the path.
Answer whoAnswers(const sockaddr_un& address) {
    UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe ||
        ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Answer::Nobody;
    return peerIsOwner(probe.get()) ? Answer::Owner : Answer::OtherUser;
}

// Opens the lock file and takes its lock, without waiting.
enum class Lock { Taken, Held, NotOurs, Failed };
Lock tryLock(const std::string& lockPath, UniqueFd& lock) {
    lock.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock)  // another user's file, or a link to anything
        return errno == EACCES || errno == EPERM || errno == ELOOP ? Lock::NotOurs : Lock::Failed;
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return Lock::Taken;
    if (errno != EWOULDBLOCK) return Lock::Failed;
    struct stat info;
    if (::fstat(lock.get(), &info) != 0 || info.st_uid != ::geteuid()) return Lock::NotOurs;
    return Lock::Held;
}

// Whether the lock file still names the file that lock has open.
bool namesOpenFile(const std::string& lockPath, int lock) {
    struct stat named, open;
    return ::lstat(lockPath.c_str(), &named) == 0 && ::fstat(lock, &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

}  // namespace

std::optional<std::variant<Listener::AlreadyServed, Listener::Failure>> Listener::takeLock(
    const std::string& lockPath, const sockaddr_un& address, UniqueFd& lock) {
    const std::string& path = address.sun_path;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const Lock state = tryLock(lockPath, lock);
        if (state == Lock::Taken) {
            if (namesOpenFile(lockPath, lock.get())) return std::nullopt;
            continue;  // replaced meanwhile by a node taking it over
        }
        if (state == Lock::Failed) return Failure{errorText("cannot lock " + lockPath)};
        // Someone holds the lock, or it is not ours to take: a node that holds
        // it answers within moments of taking it.
        const auto deadline = std::chrono::steady_clock::now() + heldLockPatience;
        while (true) {
            switch (whoAnswers(address)) {
                case Answer::Owner:
                    return AlreadyServed{};
                case Answer::OtherUser:
                    return Failure{"another user serves " + path};
                case Answer::Nobody:
                    break;
            }
            if (std::chrono::steady_clock::now() >= deadline) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (state == Lock::NotOurs) {
            struct stat info;
            const std::string owner =
                ::lstat(lockPath.c_str(), &info) == 0
                    ? " (it belongs to user id " + std::to_string(info.st_uid) + ")"
                    : "";
            return Failure{"the lock file " + lockPath + owner +
                           " is held or cannot be opened, and no node answers on " + path +
                           ". Remove " + lockPath +
                           ", or set HARBORLATTICE_SOCKET to a path in a folder of your own."};
        }
        // Ours, held by a process that serves nothing: a new lock file takes
        // its place, unless another node has replaced it already.
        if (namesOpenFile(lockPath, lock.get()) && ::unlink(lockPath.c_str()) != 0 &&
            errno != ENOENT)
            return Failure{errorText("cannot replace the held lock file " + lockPath)};
    }
    return Failure{"the lock file " + lockPath + " keeps being replaced; no node answers on " +
                   path + ". Remove " + lockPath + " and start again."};
}

std::variant<Listener, Listener::AlreadyServed, Listener::Failure> Listener::open(
    const std::string& socketPath) {
    Listener listener;
    listener.path_ = socketPath;
    if (!socketPath.empty() && socketPath.front() != '/') {
        char here[4096];
        if (::getcwd(here, sizeof here)) listener.path_ = std::string(here) + "/" + socketPath;
    }
    const std::string& path = listener.path_;
    sockaddr_un address;
    if (!fillAddress(path, address)) return Failure{"socket path is empty or too long: " + path};

    const auto slash = path.rfind('/');
    const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
    if (auto error = prepareFolder(folder)) return Failure{*error};

    const std::string lockPath = path + ".lock";
    if (auto held = takeLock(lockPath, address, listener.lock_)) {
        if (std::holds_alternative<AlreadyServed>(*held)) return AlreadyServed{};
        return std::get<Failure>(*held);
    }

    // A node that does not know the lock may still be serving the path.
    switch (whoAnswers(address)) {
        case Answer::Owner:
            return AlreadyServed{};
        case Answer::OtherUser:
            return Failure{"another user serves " + path};
        case Answer::Nobody:
            break;
    }
    struct stat existing;
    if (::lstat(path.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode)) return Failure{"not a socket, left in place: " + path};
        if (::unlink(path.c_str()) != 0)
            return Failure{errorText("cannot remove stale socket " + path)};
    }

    listener.socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.socket_) return Failure{errorText("cannot create socket")};
    makeNonBlocking(listener.socket_.get());
    const mode_t previousMask = ::umask(0177);
    const int bound =
        ::bind(listener.socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bindError = errno;
    ::umask(previousMask);
    if (bound != 0) {
        errno = bindError;
        return Failure{errorText("cannot bind " + path)};
    }
    ::chmod(path.c_str(), 0600);
    if (::listen(listener.socket_.get(), SOMAXCONN) != 0)
        return Failure{errorText("cannot listen")};
    struct stat bound_info;
    if (::stat(path.c_str(), &bound_info) == 0) {
        listener.device_ = bound_info.st_dev;
        listener.inode_ = bound_info.st_ino;
    }
    return listener;
}

std::optional<UniqueFd> Listener::accept() const {
#if defined(__linux__)
    UniqueFd client(::accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client) return std::nullopt;
#else
    UniqueFd client(::accept(socket_.get(), nullptr, nullptr));
    if (!client) return std::nullopt;
    makeNonBlocking(client.get());
#endif
    if (!peerIsOwner(client.get())) return UniqueFd();
    return client;
}

void Listener::removeSocket() const {
    struct stat info;
    if (::lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

}  // namespace hl::node
