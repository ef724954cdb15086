// Daemon: what turns a process started by the application into the node that
// outlives it.
#pragma once

#include <sys/resource.h>

#include <optional>

namespace hl::node {

// Leaves the starter's session: setsid() in place when possible (the pid stays
// the one the starter saw), otherwise once more after a fork, the parent leaving
// at once. Returns false when the node cannot detach.
bool detach();

// Makes sure descriptors 0 to 2 are open (on the null device if need be), so
// that no socket or terminal of the node ever takes their place.
void keepStandardDescriptors();

// Raises the soft limit of open descriptors to the hard limit (capped), for
// many sessions and clients; returns the limit as it was, for the shells.
std::optional<rlimit> raiseDescriptorLimit();

}  // namespace hl::node
