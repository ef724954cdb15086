// `sync_bench stress`: random changes on several cores at once over the folder
// record and a WebDAV record on a real Apache.
#pragma once

namespace hl::bench {

// Runs the stress on both records; 0 when no acknowledged change was lost and
// every core agreed with the record at the end.
int runStressOnBoth(int instances, int durationSeconds);

}  // namespace hl::bench
