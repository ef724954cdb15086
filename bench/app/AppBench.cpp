// app_bench: the application window's start-up time to the first terminal
// prompt on screen with 1 and with 20 restored panes, and its memory (Pss of
// the process and its renderers) per additional pane, each beside the same
// measure of bare QWebEngineViews showing the same terminal document. Not a
// test: run it by hand on a release build and read the ratios.
//
//   app_bench all [--runs N]      everything below as child processes, one table
//   app_bench prepare STATE N     N panes in one tab, connected, left in the node
//   app_bench app STATE           the real window restoring STATE's panes
//   app_bench bare STATE N        N bare views of the terminal document
//
// Each child reports "key value" lines: first_ms (from the start of the
// process, or from --since NS on CLOCK_MONOTONIC, which the driver reads just
// before its fork, to the first prompt on screen), all_ms (to the last one),
// pss_kib and processes (the process tree once every view shows its prompt),
// then "done". A bare view's prompt is one the probe writes into its terminal
// as soon as the terminal's rows exist.
#include <unistd.h>

#include <QApplication>
#include <QGridLayout>
#include <QPointer>
#include <QTimer>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineView>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BenchProcesses.h"
#include "ContentView.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "ProcessEnvironment.h"
#include "XtermWebView.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr int fewPanes = 1;
constexpr int manyPanes = 20;
// How long the views may settle once every prompt shows, before memory is read.
constexpr int settleMilliseconds = 1500;
constexpr int pollMilliseconds = 20;

// True once the page's terminal rows end a line with a prompt sign.
const QString promptProbe = QStringLiteral(R"JS((function () {
  const rows = document.querySelector('.xterm-rows');
  return !!rows && /[$#]\s*$/m.test(rows.innerText);
})())JS");

// The same, after writing a prompt into the bare document's terminal once its rows exist.
const QString barePromptProbe = QStringLiteral(R"JS((function () {
  const rows = document.querySelector('.xterm-rows');
  if (!rows) return false;
  if (!window.benchPromptWritten && typeof terminal !== 'undefined') {
    window.benchPromptWritten = true;
    terminal.write('bare$ ');
  }
  return /[$#]\s*$/m.test(rows.innerText);
})())JS");

// Message handlers that accept and drop every post: the bare document runs to
// its end without the application's web channel.
const QString silentHandlers = QStringLiteral(R"JS(window.webkit = { messageHandlers: {} };
["input", "resize", "openLink", "ready"].forEach(function (name) {
  window.webkit.messageHandlers[name] = { postMessage: function () {} };
});)JS");

// Private home, preferences, data and socket inside `state`; the offscreen platform.
void useStateFolder(const fs::path& state) {
    for (const char* folder : {"home", "config", "data"})
        fs::create_directories(state / folder);
    ::setenv("HOME", (state / "home").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (state / "config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (state / "data").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (state / "home" / ".cache").c_str(), 1);
    ::setenv("HARBORLATTICE_SOCKET", (state / "node.sock").c_str(), 1);
    ::setenv("HARBORLATTICE_NODE_EXECUTABLE", HL_NODE_EXECUTABLE, 1);
    ::setenv("HARBORLATTICE_ROOT", HL_SOURCE_DIR, 1);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
}

double millisecondsSince(std::int64_t start) {
    return static_cast<double>(hl::bench::monotonicNanoseconds() - start) / 1e6;
}

// Pss of this process and its descendants (the web engine's processes).
struct TreeMemory {
    long totalKiB = 0;
    long ownKiB = 0;
    long renderersKiB = 0;
    std::size_t processes = 0;
    std::size_t renderers = 0;
};

TreeMemory treeProportionalSet() {
    TreeMemory memory;
    const auto tree = hl::bench::processTree(::getpid());
    memory.processes = tree.size();
    for (const pid_t pid : tree) {
        const long pss = hl::bench::proportionalSetKiB(pid);
        memory.totalKiB += pss;
        if (pid == ::getpid()) {
            memory.ownKiB = pss;
        } else if (hl::bench::isRendererProcess(pid)) {
            memory.renderersKiB += pss;
            ++memory.renderers;
        }
    }
    return memory;
}

// Spins the event loop until `condition` holds or `timeout` passes.
bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        ::usleep(5000);
    }
    return true;
}

// Polls every view's page until each shows a prompt, then reports the times
// and, after a moment to settle, the memory of the process tree; ends the loop.
class PromptWatch : public QObject {
  public:
    PromptWatch(std::function<QList<QWebEngineView*>()> views, int expected, QString probe,
                std::int64_t since)
        : views_(std::move(views)), expected_(expected), probe_(std::move(probe)), since_(since) {
        connect(&timer_, &QTimer::timeout, this, &PromptWatch::poll);
        timer_.start(pollMilliseconds);
        QTimer::singleShot(120s, this, [] {
            std::fprintf(stderr, "app_bench: no prompt on every view within 120 s\n");
            QCoreApplication::exit(1);
        });
    }

  private:
    struct Probe {
        bool shown = false;
        std::optional<std::int64_t> sentAt;
    };

    // Asks each view that has shown nothing yet, one question at a time per view.
    void poll() {
        const auto now = hl::bench::monotonicNanoseconds();
        for (QWebEngineView* view : views_()) {
            Probe& probe = probes_[view];
            if (probe.shown || (probe.sentAt && now - *probe.sentAt < 1'000'000'000)) continue;
            probe.sentAt = now;
            QPointer<QWebEngineView> guard(view);
            view->page()->runJavaScript(probe_, [this, guard, view](const QVariant& result) {
                if (!guard) return;
                probes_[view].sentAt.reset();
                if (result.toBool()) shown(view);
            });
        }
    }

    void shown(QWebEngineView* view) {
        Probe& probe = probes_[view];
        if (probe.shown) return;
        probe.shown = true;
        ++shownCount_;
        if (shownCount_ == 1) firstMs_ = millisecondsSince(since_);
        if (shownCount_ < expected_) return;
        const double allMs = millisecondsSince(since_);
        timer_.stop();
        QTimer::singleShot(settleMilliseconds, this, [this, allMs] {
            const TreeMemory memory = treeProportionalSet();
            std::printf(
                "first_ms %.1f\nall_ms %.1f\npss_kib %ld\nown_pss_kib %ld\nrenderer_pss_kib "
                "%ld\nprocesses %zu\nrenderers %zu\ndone\n",
                firstMs_, allMs, memory.totalKiB, memory.ownKiB, memory.renderersKiB,
                memory.processes, memory.renderers);
            std::fflush(stdout);
            QCoreApplication::exit(0);
        });
    }

    std::function<QList<QWebEngineView*>()> views_;
    int expected_;
    QString probe_;
    std::int64_t since_;
    QTimer timer_;
    std::map<QWebEngineView*, Probe> probes_;
    int shownCount_ = 0;
    double firstMs_ = 0;
};

// The panes' page views in the window.
QList<QWebEngineView*> paneViews(QWidget* window) {
    QList<QWebEngineView*> views;
    for (auto* pane : window->findChildren<hl::XtermWebView*>())
        views << pane->webView();
    return views;
}

// Builds a tab of `count` panes in the scratch workspace, each split halving the
// pane split least often so far, and waits until every shell has written.
int prepare(int argc, char** argv, const fs::path& state, int count) {
    useStateFolder(state);
    hl::prepareProcessEnvironment();
    std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
    int qtArgc = static_cast<int>(arguments.size()) - 1;
    QApplication qt(qtArgc, arguments.data());
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
    auto app = std::make_unique<hl::HarborlatticeApp>();
    auto& workspace = app->workspace();
    {
        hl::MainWindow window(*app);
        window.show();
        app->delegate().scheduleDidFinishLaunching();
        if (!window.contentView()->openScratchWorkspace() || !workspace.selectedTab()) {
            std::fprintf(stderr, "app_bench: no scratch workspace\n");
            return 1;
        }
        hl::TerminalTab* tab = workspace.selectedTab();
        std::deque<QUuid> order{tab->panes().front()->id()};
        std::map<QUuid, int> depth;
        while (static_cast<int>(tab->paneCount()) < count) {
            const QUuid pane = order.front();
            order.pop_front();
            workspace.selectPane(pane);
            workspace.split(depth[pane] % 2 == 0);
            const QUuid added = *tab->selectedPaneID();
            depth[added] = ++depth[pane];
            order.push_back(pane);
            order.push_back(added);
        }
        const bool ready = spinUntil(
            [&] {
                for (auto* pane : tab->panes()) {
                    if (pane->controller().status() != "Connected" ||
                        pane->controller().rendererHistoryBytes() == 0) {
                        return false;
                    }
                }
                return true;
            },
            90s);
        spinUntil([&] { return workspace.closeLedger().pending().empty(); }, 10s);
        spinUntil([] { return false; }, 500ms);
        if (!ready) {
            std::fprintf(stderr, "app_bench: the panes did not all connect\n");
            return 1;
        }
        std::printf("panes %zu\ndone\n", tab->paneCount());
    }
    std::fflush(stdout);
    return 0;
}

// The application's own start-up on `state`, watched until every pane shows its prompt.
int runApp(int argc, char** argv, const fs::path& state, std::int64_t since) {
    useStateFolder(state);
    hl::prepareProcessEnvironment();
    std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
    int qtArgc = static_cast<int>(arguments.size()) - 1;
    QApplication qt(qtArgc, arguments.data());
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
    auto app = std::make_unique<hl::HarborlatticeApp>();
    hl::TerminalTab* tab = app->workspace().selectedTab();
    if (!tab) {
        std::fprintf(stderr, "app_bench: nothing was restored from %s\n", state.c_str());
        return 1;
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    PromptWatch watch([&window] { return paneViews(&window); }, static_cast<int>(tab->paneCount()),
                      promptProbe, since);
    return QApplication::exec();
}

// `count` plain views in one window of the application's size, each given the
// terminal document the way the application gives it, with handlers that drop
// the document's posts in place of the application's bridge.
int runBare(int argc, char** argv, const fs::path& state, int count, std::int64_t since) {
    useStateFolder(state);
    hl::prepareProcessEnvironment();
    QApplication qt(argc, argv);
    QWidget window;
    window.resize(1360, 820);
    auto* grid = new QGridLayout(&window);
    grid->setContentsMargins(0, 0, 0, 0);
    const int columns = static_cast<int>(std::ceil(std::sqrt(count)));
    const QString document = hl::XtermWebView::document();
    QList<QWebEngineView*> views;
    for (int i = 0; i < count; ++i) {
        auto* view = new QWebEngineView(&window);
        grid->addWidget(view, i / columns, i % columns);
        QWebEngineScript handlers;
        handlers.setInjectionPoint(QWebEngineScript::DocumentCreation);
        handlers.setWorldId(QWebEngineScript::MainWorld);
        handlers.setSourceCode(silentHandlers);
        view->page()->scripts().insert(handlers);
        view->setHtml(document, QUrl());
        views << view;
    }
    window.show();
    PromptWatch watch([views] { return views; }, count, barePromptProbe, since);
    return QApplication::exec();
}

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

void printRow(const char* label, double app, double bare, const char* unit) {
    std::printf("%-36s %10.1f %10.1f %9.2f   %s\n", label, app, bare, app / bare, unit);
}

// Prepares both states, runs the window and the bare views alternately, prints the table.
int runAll(int runs) {
    std::string pattern = (fs::temp_directory_path() / "hl-app-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return 1;
    const fs::path base = fs::canonical(pattern);
    const fs::path log = base / "children.log";
    const auto state = [&](const std::string& name) { return (base / name).string(); };
    int status = 0;

    std::map<std::string, Series> series;
    const auto run = [&](const std::string& name, const std::vector<std::string>& arguments) {
        const auto result = hl::bench::runSelf(arguments, log, 180s);
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

    std::fprintf(stderr, "app_bench: preparing %d and %d restored panes in %s\n", fewPanes,
                 manyPanes, base.c_str());
    const std::string few = std::to_string(fewPanes);
    const std::string many = std::to_string(manyPanes);
    if (!run("prepare1", {"prepare", state("few"), few}) ||
        !run("prepare20", {"prepare", state("many"), many})) {
        status = 1;
    }
    for (int i = 0; status == 0 && i < runs; ++i) {
        std::fprintf(stderr, "app_bench: run %d of %d\n", i + 1, runs);
        run("app1", {"app", state("few")});
        run("bare1", {"bare", state("bare"), few});
        run("app20", {"app", state("many")});
        run("bare20", {"bare", state("bare"), many});
    }
    hl::bench::stopProcessesOf(base);

    if (status == 0) {
        auto& app1 = series["app1"];
        auto& app20 = series["app20"];
        auto& bare1 = series["bare1"];
        auto& bare20 = series["bare20"];
        const auto mib = [](double kib) { return kib / 1024; };
        const auto perPane = [&](Series& one, Series& many) {
            return mib(many["pss_kib"] - one["pss_kib"]) / (manyPanes - fewPanes);
        };
        std::printf(
            "\napp_bench: median of %d runs; window = the application restoring its "
            "panes, bare = QWebEngineViews showing the same document\n\n",
            runs);
        std::printf("%-36s %10s %10s %9s\n", "measure", "window", "bare", "ratio");
        printRow("start-up to first prompt, 1 pane", app1["first_ms"], bare1["first_ms"], "ms");
        printRow("start-up to first prompt, 20 panes", app20["first_ms"], bare20["first_ms"], "ms");
        printRow("start-up to every prompt, 20 panes", app20["all_ms"], bare20["all_ms"], "ms");
        printRow("Pss with 1 pane", mib(app1["pss_kib"]), mib(bare1["pss_kib"]), "MiB");
        printRow("Pss with 20 panes", mib(app20["pss_kib"]), mib(bare20["pss_kib"]), "MiB");
        printRow("Pss per additional pane", perPane(app1, app20), perPane(bare1, bare20), "MiB");
        printRow("processes with 20 panes", app20["processes"], bare20["processes"], "");
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
                 "usage: app_bench all [--runs N]\n"
                 "       app_bench prepare STATE N | app STATE | bare STATE N  [--since NS]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    std::int64_t since = hl::bench::processStartNanoseconds();
    int runs = 3;
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--since" && i + 1 < words.size()) {
            since = std::stoll(words[++i]);
        } else if (words[i] == "--runs" && i + 1 < words.size()) {
            runs = std::max(1, std::stoi(words[++i]));
        } else {
            positional.push_back(words[i]);
        }
    }
    if (positional.empty()) return usage();
    const std::string& mode = positional[0];
    // Qt sees only the program name: the modes' words are not its options.
    int qtArgc = 1;
    if (mode == "all" && positional.size() == 1) return runAll(runs);
    if (mode == "prepare" && positional.size() == 3)
        return prepare(qtArgc, argv, positional[1], std::stoi(positional[2]));
    if (mode == "app" && positional.size() == 2) return runApp(qtArgc, argv, positional[1], since);
    if (mode == "bare" && positional.size() == 3)
        return runBare(qtArgc, argv, positional[1], std::stoi(positional[2]), since);
    return usage();
}
