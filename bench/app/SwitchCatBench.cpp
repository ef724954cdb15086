// app_bench's tab switches and its end-to-end run: the real window switching
// between restored tabs through the workspace store, `cat` of a large file in
// a restored pane until its last line is on screen, and the same file through
// the node to a client that only counts.
#include <QTimer>
#include <QWebEngineView>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <thread>

#include "Base64.h"
#include "BenchModes.h"
#include "BenchProcesses.h"
#include "BenchWindow.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "NodeClient.h"
#include "XtermWebView.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace hl::bench {

namespace {

// True once the page has painted a frame since this probe first saw `token`
// and its rows show a prompt. A hidden page paints no frame.
QString framedPromptProbe(const QString& pane, int token) {
    return QStringLiteral(R"JS((function (pane, token) {
  const rows = document.querySelector('%1');
  if (!rows) return false;
  const seen = window.benchTokens ??= {};
  if (seen[pane]?.token !== token) {
    const probe = seen[pane] = { token, frame: false };
    requestAnimationFrame(() => { probe.frame = true; });
    return false;
  }
  return seen[pane].frame && /[$#]\s*$/m.test(rows.innerText);
})('%2', %3))JS")
        .arg(rowsSelector(pane), pane)
        .arg(token);
}

// Waits until `tab` is the one on screen with every pane painted and showing
// its prompt; the milliseconds from `start`, or a negative value. Views of the
// tab that are not shown (a view the window has let go of) do not count.
double untilShown(QWidget* window, const TerminalTab& tab, int token, std::int64_t start) {
    const bool shown = spinUntil(
        [&] {
            const auto visible = visiblePaneTerminals(window);
            QList<PaneTerminal> terminals;
            for (const auto& terminal : tabPaneTerminals(window, tab)) {
                if (visible.contains(terminal)) terminals << terminal;
            }
            if (terminals.size() != static_cast<qsizetype>(tab.paneCount())) return false;
            for (const auto& terminal : terminals) {
                if (!pageAnswersTrue(terminal.view, framedPromptProbe(terminal.pane, token)))
                    return false;
            }
            return true;
        },
        60s);
    return shown ? millisecondsSince(start) : -1;
}

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

}  // namespace

int runSwitch(int argc, char** argv, const fs::path& state, int rounds) {
    useStateFolder(state);
    ChildApplication qt(argc, argv, true);
    auto app = std::make_unique<hl::HarborlatticeApp>();
    auto& workspace = app->workspace();
    const auto tabs = workspace.visibleTabs();
    // A run leaves the second tab selected; the next starts on the first again.
    if (tabs.size() == 2) workspace.selectTab(tabs[0]->id());
    if (tabs.size() != 2 || workspace.selectedTab() != tabs[0] || tabs[1]->paneCount() != 4) {
        std::fprintf(stderr, "app_bench: %s does not hold a tab of 1 pane and one of 4\n",
                     state.c_str());
        return 1;
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    int token = 0;
    if (untilShown(&window, *tabs[0], ++token, monotonicNanoseconds()) < 0) {
        std::fprintf(stderr, "app_bench: the first tab never showed its prompt\n");
        return 1;
    }
    spinUntil([] { return false; }, 1s);

    auto start = monotonicNanoseconds();
    workspace.selectTab(tabs[1]->id());
    const double neverShown = untilShown(&window, *tabs[1], ++token, start);
    std::vector<double> back;
    std::vector<double> forth;
    for (int round = 0; round < rounds && neverShown >= 0; ++round) {
        spinUntil([] { return false; }, 300ms);
        start = monotonicNanoseconds();
        workspace.selectTab(tabs[0]->id());
        back.push_back(untilShown(&window, *tabs[0], ++token, start));
        spinUntil([] { return false; }, 300ms);
        start = monotonicNanoseconds();
        workspace.selectTab(tabs[1]->id());
        forth.push_back(untilShown(&window, *tabs[1], ++token, start));
    }
    if (neverShown < 0 ||
        std::count_if(back.begin(), back.end(), [](double ms) { return ms < 0; }) ||
        std::count_if(forth.begin(), forth.end(), [](double ms) { return ms < 0; })) {
        std::fprintf(stderr, "app_bench: a tab did not show within 60 s\n");
        return 1;
    }
    std::printf("never_shown_ms %.1f\nshown_before_ms %.1f\nshown_before4_ms %.1f\ndone\n",
                neverShown, medianOf(back), medianOf(forth));
    std::fflush(stdout);
    return 0;
}

int runCat(int argc, char** argv, const fs::path& state, const fs::path& file) {
    useStateFolder(state);
    ChildApplication qt(argc, argv, true);
    auto app = std::make_unique<hl::HarborlatticeApp>();
    hl::TerminalTab* tab = app->workspace().selectedTab();
    if (!tab || tab->paneCount() != 1) {
        std::fprintf(stderr, "app_bench: %s does not hold one pane\n", state.c_str());
        return 1;
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    if (untilShown(&window, *tab, 1, monotonicNanoseconds()) < 0) {
        std::fprintf(stderr, "app_bench: the pane never showed its prompt\n");
        return 1;
    }
    spinUntil([] { return false; }, 1500ms);
    const TreeMemory before = treeProportionalSet();
    const PaneTerminal terminal = tabPaneTerminals(&window, *tab).front();
    QWebEngineView* view = terminal.view;
    const QString lastLine =
        QStringLiteral(R"JS((function () {
  const rows = document.querySelector('%1');
  return !!rows && rows.innerText.includes('%2');
})())JS")
            .arg(rowsSelector(terminal.pane), QString::fromLatin1(catEndMarker));
    const auto start = monotonicNanoseconds();
    tab->panes().front()->controller().terminalSurfaceDidReceiveInput(
        QStringLiteral("cat %1\r").arg(QString::fromStdString(file.string())));
    if (!spinUntil([&] { return pageAnswersTrue(view, lastLine, 60s); }, 900s)) {
        std::fprintf(stderr, "app_bench: the file's last line never showed\n");
        return 1;
    }
    const double catMs = millisecondsSince(start);
    spinUntil([] { return false; }, 1500ms);
    const TreeMemory after = treeProportionalSet();
    std::printf(
        "cat_ms %.1f\nrenderer_before_kib %ld\nrenderer_after_kib %ld\nown_before_kib "
        "%ld\nown_after_kib %ld\ndone\n",
        catMs, before.renderersKiB, after.renderersKiB, before.ownKiB, after.ownKiB);
    std::fflush(stdout);
    return 0;
}

void writeCatFile(const fs::path& file, int megabytes) {
    std::ofstream out(file, std::ios::binary);
    const std::int64_t target = std::int64_t{megabytes} * 1'000'000;
    char line[96];
    std::int64_t written = 0;
    for (std::int64_t number = 1; written < target; ++number) {
        const int length = std::snprintf(line, sizeof line,
                                         "%09lld the quick brown fox jumps over the lazy dog, "
                                         "line after line after line\n",
                                         static_cast<long long>(number));
        out.write(line, length);
        written += length;
    }
    out << catEndMarker << '\n';
}

double catThroughNode(const std::string& socket, const fs::path& file) {
    try {
        const hl::UnixSocketClient client(socket);
        const auto id = *client
                             .request("create_session", {{"cwd", file.parent_path().string()},
                                                         {"cols", std::int64_t{120}},
                                                         {"rows", std::int64_t{36}}})["session_id"]
                             .stringValue();
        // Polls until the prompt has come and gone quiet.
        for (int quiet = 0; quiet < 2;) {
            const auto output =
                client.request("poll", {{"session_id", id}})["output_base64"].stringValue();
            quiet = output && !output->empty() ? 0 : quiet + 1;
            std::this_thread::sleep_for(180ms);
        }
        const std::string command = "cat " + file.string() + "\r";
        const auto start = std::chrono::steady_clock::now();
        client.request("input",
                       {{"session_id", id}, {"input_base64", hl::base64::encode(command)}});
        // The same pace as the terminal's poll loop: 50 ms after output, 180 ms after none.
        std::string tail;
        std::int64_t bytes = 0;
        while (tail.find(catEndMarker) == std::string::npos) {
            const auto output =
                client.request("poll", {{"session_id", id}})["output_base64"].stringValue();
            if (!output || output->empty()) {
                std::this_thread::sleep_for(180ms);
                continue;
            }
            const auto decoded = hl::base64::decode(*output);
            if (!decoded) return -1;
            bytes += static_cast<std::int64_t>(decoded->size());
            tail = tail.substr(tail.size() > 64 ? tail.size() - 64 : 0) +
                   decoded->substr(decoded->size() > 4096 ? decoded->size() - 4096 : 0);
            if (tail.find(catEndMarker) == std::string::npos) std::this_thread::sleep_for(50ms);
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        client.request("close_session", {{"session_id", id}});
        std::fprintf(stderr, "  cat_node bytes=%lld\n", static_cast<long long>(bytes));
        return seconds;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "app_bench: the node's cat failed: %s\n", error.what());
        return -1;
    }
}

}  // namespace hl::bench
