// BurstRun: how long a burst of requests holds up the node's loop.
#pragma once

namespace hl::node::bench {

// Bursts of 100 requests of each kind on 100 connections at once, against the
// node executable given (the one built with the bench when null). Prints, per
// kind, the worst wait of a client that was already connected and sent its
// request just after the burst (the loop's stall), and the burst's own time.
void burstRun(const char* executable);

}  // namespace hl::node::bench
