// Process plumbing of app_bench: the monotonic clock shared by a driver and its
// children, the proportional memory of a process tree, child runs with captured
// output, and the clean-up of every process started for one state folder.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace hl::bench {

// CLOCK_MONOTONIC in nanoseconds; the same clock in every process of the machine.
std::int64_t monotonicNanoseconds();
// When this process started, on the clock of monotonicNanoseconds (10 ms steps).
std::int64_t processStartNanoseconds();

// The process and every descendant of it that still runs.
std::vector<pid_t> processTree(pid_t root);
// Pss of one process from /proc/<pid>/smaps_rollup in KiB; 0 when it has gone.
long proportionalSetKiB(pid_t pid);
// User and system CPU time of one process in ms; 0 when it has gone.
double cpuMilliseconds(pid_t pid);
// True when the process is a web engine renderer: a child of the zygote.
bool isRendererProcess(pid_t pid);

// What a child run printed as "key value" lines, and how it ended.
struct ChildRun {
    bool succeeded = false;
    std::map<std::string, double> values;
    std::string failure;
};

// Runs this executable with `arguments` followed by "--since <ns>", the clock
// read just before the fork (stdout captured, stderr appended to `log`),
// killing its process group after `timeout`.
ChildRun runSelf(const std::vector<std::string>& arguments, const std::filesystem::path& log,
                 std::chrono::seconds timeout);

// Stops every process whose environment names a socket inside `folder` (nodes,
// shells, stray renderers): TERM first, KILL for those still there.
void stopProcessesOf(const std::filesystem::path& folder);

}  // namespace hl::bench
