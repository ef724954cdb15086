// harborlattice-node-faulty: the real node, except that a resize to 13 columns
// throws std::bad_alloc from inside the loop, as a failed allocation would.
#include <new>

#include "NodeMain.h"

int main(int argc, char**) {
    return hl::node::nodeMain(argc, [](const hl::node::Request& request) {
        if (request.operation == hl::node::Operation::Resize && request.cols == 13)
            throw std::bad_alloc();
    });
}
