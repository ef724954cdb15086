// harborlattice-node: the per-user daemon that holds the shells, so that they
// outlive the application. Started with no arguments; listens on
// $HARBORLATTICE_SOCKET or on node.sock in the support directory, and exits at
// once (status 0) when another node already serves that socket. It keeps no log.
#include "NodeMain.h"

int main(int argc, char**) {
    return hl::node::nodeMain(argc, {});
}
