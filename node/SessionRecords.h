// SessionRecords: the node's private note of the shells it holds, so that the
// next node can end what a node killed outright left running.
//
// Words used here: the *place* is a folder beside the socket (its path plus
// ".sessions"), 0700 and the user's own; a *record* is one empty 0600 file in
// it, named "<shell pid>.<shell start time>", made when a shell is started and
// removed once its session has been ended. A record is *left over* when the
// node that made it is gone. Its session is still the same one when its shell
// runs with the recorded start time, or when the shell is gone and processes of
// the user remain in its session (the system never hands out a session's id
// again while a process of the session lives); any other record is stale.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace hl::node {

class SessionRecords {
  public:
    // A session that an earlier node left: its leader's pid and its record.
    struct Leftover {
        pid_t leader;
        std::string record;
    };

    // Records in the place beside socketPath; a place that is not a folder of
    // the user's own is never used, and then nothing is recorded.
    explicit SessionRecords(const std::string& socketPath);

    // Whether records are kept.
    bool usable() const { return static_cast<bool>(place_); }
    const std::string& place() const { return path_; }

    // Records the shell that leads a new session; the record's name (empty
    // when none could be made).
    std::string add(pid_t shell);
    // Removes a record once its session has been ended.
    void remove(const std::string& record);
    // The sessions left over by an earlier node; stale records are removed.
    std::vector<Leftover> takeLeftovers();

  private:
    std::string path_;
    UniqueFd place_;
};

}  // namespace hl::node
