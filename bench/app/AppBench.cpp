// app_bench: what the application's terminal views cost and how soon they
// show, each figure beside a reference measured in the same run. Not a test:
// run it by hand on a release build and read the ratios.
//
//   app_bench all [--runs N] [--cat-mb M]   everything below as child processes, one table
//   app_bench prepare STATE N[,N...]        one tab per N with N panes, connected, left in the node
//   app_bench app STATE                     the real window restoring STATE's panes
//   app_bench bare STATE N                  N bare views of the terminal document
//   app_bench switch STATE [ROUNDS]         tab switches on a state of tabs of 1 and 4 panes
//   app_bench cat STATE FILE                `cat FILE` in the restored pane to its last line
//
// Start-up: the window restoring 1 and 20 panes, from the start of the process
// (or from --since NS on CLOCK_MONOTONIC, which the driver reads just before
// its fork) to the first and to the last prompt on screen, and the Pss of the
// process tree once every prompt shows; the reference is bare QWebEngineViews
// given the same document as a data: address, one renderer process per view
// (what the application did before its views shared one). Tab switches: the
// real window driven through the workspace store's tab selection, until each
// pane of the tab shown has painted a frame and shows its prompt. End to end:
// `cat` of a large file until its last line is on screen, against the same
// file through the node to a client that only counts.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "BenchModes.h"
#include "BenchProcesses.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr int fewPanes = 1;
constexpr int manyPanes = 20;

// The middle value of the successful runs, or NaN.
double median(std::vector<double> values) {
    if (values.empty()) return std::nan("");
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Repeated runs of one child command, the figures kept by key.
struct Series {
    std::map<std::string, std::vector<double>> values;
    int failures = 0;
    double operator[](const std::string& key) const {
        const auto found = values.find(key);
        return found == values.end() ? std::nan("") : median(found->second);
    }
};

void printRow(const char* label, double measured, double reference, const char* unit,
              const char* target = "") {
    std::printf("%-44s %10.1f %10.1f %8.2f  %-4s %s\n", label, measured, reference,
                measured / reference, unit, target);
}

void printAlone(const char* label, double measured, const char* unit, const char* target) {
    std::printf("%-44s %10.1f %10s %8s  %-4s %s\n", label, measured, "", "", unit, target);
}

// Prepares the states, runs the children alternately, prints the table.
int runAll(int runs, int catMegabytes) {
    std::string pattern = (fs::temp_directory_path() / "hl-app-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return 1;
    const fs::path base = fs::canonical(pattern);
    const fs::path log = base / "children.log";
    const auto state = [&](const std::string& name) { return (base / name).string(); };
    int status = 0;

    std::map<std::string, Series> series;
    const auto run = [&](const std::string& name, const std::vector<std::string>& arguments,
                         std::chrono::seconds timeout = 180s) {
        const auto result = hl::bench::runSelf(arguments, log, timeout);
        if (!result.succeeded) {
            ++series[name].failures;
            std::fprintf(stderr, "  %-8s failed: %s (see %s)\n", name.c_str(),
                         result.failure.c_str(), log.c_str());
            return false;
        }
        std::string line;
        for (const auto& [key, value] : result.values) {
            series[name].values[key].push_back(value);
            line += " " + key + "=" + std::to_string(static_cast<long>(std::lround(value)));
        }
        std::fprintf(stderr, "  %-8s%s\n", name.c_str(), line.c_str());
        return true;
    };

    std::fprintf(stderr, "app_bench: preparing the restored states in %s\n", base.c_str());
    const std::string few = std::to_string(fewPanes);
    const std::string many = std::to_string(manyPanes);
    if (!run("prepare1", {"prepare", state("few"), few}) ||
        !run("prepare20", {"prepare", state("many"), many}) ||
        !run("prepare_tabs", {"prepare", state("tabs"), "1,4"}) ||
        !run("prepare_cat", {"prepare", state("cat"), few})) {
        status = 1;
    }
    const fs::path catFile = base / "cat.txt";
    if (status == 0) hl::bench::writeCatFile(catFile, catMegabytes);
    for (int i = 0; status == 0 && i < runs; ++i) {
        std::fprintf(stderr, "app_bench: run %d of %d\n", i + 1, runs);
        run("app1", {"app", state("few")});
        run("bare1", {"bare", state("bare"), few});
        run("app20", {"app", state("many")});
        run("bare20", {"bare", state("bare"), many});
        run("switch", {"switch", state("tabs"), "5"});
        if (i == 0) {
            // A state of its own: the 1-pane start-up must not replay the flood.
            run("cat", {"cat", state("cat"), catFile.string()}, 900s);
            const double seconds = hl::bench::catThroughNode(state("cat") + "/node.sock", catFile);
            if (seconds < 0) {
                ++series["cat_node"].failures;
            } else {
                series["cat_node"].values["seconds"].push_back(seconds);
            }
            std::fprintf(stderr, "  cat_node seconds=%.1f\n", seconds);
        }
    }
    hl::bench::stopProcessesOf(base);

    if (status == 0) {
        auto& app1 = series["app1"];
        auto& app20 = series["app20"];
        auto& bare1 = series["bare1"];
        auto& bare20 = series["bare20"];
        auto& switches = series["switch"];
        auto& cat = series["cat"];
        const auto mib = [](double kib) { return kib / 1024; };
        const auto perPane = [&](Series& one, Series& many) {
            return mib(many["pss_kib"] - one["pss_kib"]) / (manyPanes - fewPanes);
        };
        std::printf(
            "\napp_bench: median of %d runs (the cat: one run). Reference: bare = "
            "QWebEngineViews showing the same document, one renderer process each\n\n",
            runs);
        std::printf("%-44s %10s %10s %8s  %-4s %s\n", "measure", "window", "reference", "ratio",
                    "unit", "target");
        printRow("start-up to first prompt, 1 pane (bare)", app1["first_ms"], bare1["first_ms"],
                 "ms");
        printRow("start-up to every prompt, 20 panes (bare)", app20["all_ms"], bare20["all_ms"],
                 "ms");
        printRow("every prompt, 20 panes (window, 1 pane)", app20["all_ms"], app1["first_ms"], "ms",
                 "ratio <= 2.5");
        printRow("renderer CPU, 20 panes (1 pane)", app20["renderer_cpu_ms"],
                 app1["renderer_cpu_ms"], "ms");
        printRow("Pss with 1 pane (bare)", mib(app1["pss_kib"]), mib(bare1["pss_kib"]), "MiB");
        printRow("Pss with 20 panes (bare)", mib(app20["pss_kib"]), mib(bare20["pss_kib"]), "MiB");
        printRow("Pss per additional pane (bare)", perPane(app1, app20), perPane(bare1, bare20),
                 "MiB", "<= 20 MiB");
        printRow("  of it this process (bare)",
                 mib(app20["own_pss_kib"] - app1["own_pss_kib"]) / (manyPanes - fewPanes),
                 mib(bare20["own_pss_kib"] - bare1["own_pss_kib"]) / (manyPanes - fewPanes), "MiB");
        printRow(
            "  of it the renderers (bare)",
            mib(app20["renderer_pss_kib"] - app1["renderer_pss_kib"]) / (manyPanes - fewPanes),
            mib(bare20["renderer_pss_kib"] - bare1["renderer_pss_kib"]) / (manyPanes - fewPanes),
            "MiB");
        printRow("renderer processes, 20 panes (bare)", app20["renderers"], bare20["renderers"],
                 "");
        printAlone("switch to a tab never shown, 4 panes", switches["never_shown_ms"], "ms",
                   "<= 1000 ms");
        printAlone("switch to a tab shown before, 1 pane", switches["shown_before_ms"], "ms",
                   "<= 100 ms");
        printAlone("switch to a tab shown before, 4 panes", switches["shown_before4_ms"], "ms",
                   "<= 100 ms");
        std::printf(
            "%-44s %10.1f %10.1f %8.2f  %-4s\n",
            ("cat of " + std::to_string(catMegabytes) + " MB to its last line (node)").c_str(),
            cat["cat_ms"] / 1000, series["cat_node"]["seconds"],
            cat["cat_ms"] / 1000 / series["cat_node"]["seconds"], "s");
        printRow("renderer Pss after the cat (before it)", mib(cat["renderer_after_kib"]),
                 mib(cat["renderer_before_kib"]), "MiB");
        int failures = 0;
        for (const auto& [name, each] : series)
            failures += each.failures;
        if (failures > 0) {
            std::printf("\n%d child run(s) failed; the medians leave them out.\n", failures);
            status = 1;
        }
    }
    if (status == 0) {
        std::error_code ignored;
        fs::remove_all(base, ignored);
    } else {
        std::fprintf(stderr, "app_bench: kept %s for its log\n", base.c_str());
    }
    return status;
}

int usage() {
    std::fprintf(stderr,
                 "usage: app_bench all [--runs N] [--cat-mb M]\n"
                 "       app_bench prepare STATE N[,N...] | app STATE | bare STATE N |\n"
                 "                 switch STATE [ROUNDS] | cat STATE FILE  [--since NS]\n");
    return 2;
}

std::vector<int> paneCounts(const std::string& text) {
    std::vector<int> counts;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');)
        counts.push_back(std::max(1, std::stoi(word)));
    return counts;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    std::int64_t since = hl::bench::processStartNanoseconds();
    int runs = 3;
    int catMegabytes = 100;
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--since" && i + 1 < words.size()) {
            since = std::stoll(words[++i]);
        } else if (words[i] == "--runs" && i + 1 < words.size()) {
            runs = std::max(1, std::stoi(words[++i]));
        } else if (words[i] == "--cat-mb" && i + 1 < words.size()) {
            catMegabytes = std::max(1, std::stoi(words[++i]));
        } else {
            positional.push_back(words[i]);
        }
    }
    if (positional.empty()) return usage();
    const std::string& mode = positional[0];
    // Qt sees only the program name: the modes' words are not its options.
    int qtArgc = 1;
    const std::size_t count = positional.size();
    if (mode == "all" && count == 1) return runAll(runs, catMegabytes);
    if (mode == "prepare" && count == 3)
        return hl::bench::prepare(qtArgc, argv, positional[1], paneCounts(positional[2]));
    if (mode == "app" && count == 2) return hl::bench::runApp(qtArgc, argv, positional[1], since);
    if (mode == "bare" && count == 3)
        return hl::bench::runBare(qtArgc, argv, positional[1], std::stoi(positional[2]), since);
    if (mode == "switch" && (count == 2 || count == 3))
        return hl::bench::runSwitch(qtArgc, argv, positional[1],
                                    count == 3 ? std::max(1, std::stoi(positional[2])) : 5);
    if (mode == "cat" && count == 3)
        return hl::bench::runCat(qtArgc, argv, positional[1], positional[2]);
    return usage();
}
