// Signals: the node's signal dispositions and the self-pipe through which the
// signals it cares about reach the event loop.
//
// SIGHUP and SIGPIPE are ignored for the node's whole life. SIGCHLD, SIGTERM
// and SIGINT only write their number into the pipe; the loop does the work.
#pragma once

#include "UniqueFd.h"

namespace hl::node {

// Ignores SIGHUP and SIGPIPE.
void ignoreHangups();

class SignalPipe {
  public:
    // What arrived since the last drain.
    struct Arrived {
        bool child = false;
        bool stop = false;
    };

    // Creates the pipe and installs the handlers; only one may exist.
    SignalPipe();
    ~SignalPipe();
    SignalPipe(const SignalPipe&) = delete;
    SignalPipe& operator=(const SignalPipe&) = delete;

    int fd() const { return read_.get(); }
    // Empties the pipe.
    Arrived drain();

  private:
    UniqueFd read_;
    UniqueFd write_;
};

}  // namespace hl::node
