// NodeMain: what harborlattice-node does, as a function, so that a test build
// of the node can run the same life with a request hook of its own.
#pragma once

#include "Server.h"

namespace hl::node {

// Detaches, opens the socket and serves until SIGTERM; the exit status.
int nodeMain(int argc, Server::RequestHook hook);

}  // namespace hl::node
