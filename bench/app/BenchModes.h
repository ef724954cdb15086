// The child runs of app_bench, each a mode of the same executable, and the
// driver-side reference of the end-to-end run. A child prints "key value"
// lines and "done" (see AppBench.cpp).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace hl::bench {

// Builds one tab per entry of `tabs` in the scratch workspace, each with that
// many panes, waits until every shell has written, and leaves the first tab
// selected (the others are then never shown by the next start).
int prepare(int argc, char** argv, const std::filesystem::path& state, std::vector<int> tabs);
// The application's own start-up on `state`, until every pane shows its prompt.
int runApp(int argc, char** argv, const std::filesystem::path& state, std::int64_t since);
// `count` bare views of the terminal document, each in a renderer of its own.
int runBare(int argc, char** argv, const std::filesystem::path& state, int count,
            std::int64_t since);

// On a state of two tabs (1 pane, then 4): the switch to the 4-pane tab never
// shown, then `rounds` switches back and forth between tabs shown before.
int runSwitch(int argc, char** argv, const std::filesystem::path& state, int rounds);
// `cat FILE` in the restored pane until the file's last line is on screen.
int runCat(int argc, char** argv, const std::filesystem::path& state,
           const std::filesystem::path& file);

// The text file of the end-to-end run: `megabytes` of numbered lines, the last
// one being `catEndMarker`.
inline constexpr char catEndMarker[] = "harborlattice-cat-end";
void writeCatFile(const std::filesystem::path& file, int megabytes);
// The same `cat` through the node on `socket` to a client that polls it at the
// terminal's pace and counts the bytes; seconds until the last line arrived,
// or a negative value when it failed.
double catThroughNode(const std::string& socket, const std::filesystem::path& file);

}  // namespace hl::bench
