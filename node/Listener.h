// Listener: the node's socket, the lock that makes it the only node on that
// socket, and the check of who connects.
//
// Words used here: the *folder* is the directory that holds the socket; the
// *lock file* lies beside the socket (its path plus ".lock") and stays locked
// for the node's whole life, so two nodes starting at once cannot both bind.
// A lock held while no node answers is taken over when the lock file is the
// user's own, and otherwise reported with what to remove.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <chrono>

#include <optional>
#include <string>
#include <variant>

#include "UniqueFd.h"

namespace hl::node {

class Listener {
  public:
    // How long a held lock may go without a node answering on the socket.
    static constexpr std::chrono::seconds heldLockPatience{2};

    // Another node holds the socket: this one has nothing to do.
    struct AlreadyServed {};
    // Why the socket cannot be opened.
    struct Failure {
        std::string reason;
    };

    // Prepares the folder, takes the lock, replaces a stale socket and listens.
    static std::variant<Listener, AlreadyServed, Failure> open(const std::string& socketPath);

    int fd() const { return socket_.get(); }
    const std::string& path() const { return path_; }

    // Accepts one waiting client: absent when none can be accepted now (errno
    // says why), an invalid descriptor when the client belongs to another user
    // (it is then closed without a word).
    std::optional<UniqueFd> accept() const;
    // Removes the socket file if it is still the one this listener bound.
    void removeSocket() const;

  private:
    Listener() = default;
    // Takes the lock beside the socket into lock; absent once it is taken.
    static std::optional<std::variant<AlreadyServed, Failure>> takeLock(const std::string& lockPath,
                                                                        const sockaddr_un& address,
                                                                        UniqueFd& lock);

    std::string path_;
    UniqueFd socket_;
    UniqueFd lock_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace hl::node
