// The check both ends of the node's socket make of the other end.
#pragma once

namespace hl {

// Whether the peer of a connected socket runs as this process's user.
bool peerIsOwner(int fd);

}  // namespace hl
