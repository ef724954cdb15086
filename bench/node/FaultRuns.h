// FaultRuns: the node under clients that misbehave on purpose, and a shell that
// nobody reads. Each run prints the latency of a health request while the fault
// lasts beside the same latency with no fault, and the node's resident memory.
#pragma once

namespace hl::node::bench {

// Every fault run in turn.
void faultRuns();
// `yes | head -c <megabytes>M` in a session nobody polls: time to finish beside
// the same pipeline into /dev/null, and the node's memory.
void unattended(unsigned megabytes);

}  // namespace hl::node::bench
