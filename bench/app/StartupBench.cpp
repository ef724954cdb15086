// app_bench's start-up runs: the state they restore, the application window
// restoring it, and bare views of the same document as the baseline.
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
#include <deque>
#include <map>
#include <optional>

#include "BenchModes.h"
#include "BenchProcesses.h"
#include "BenchWindow.h"
#include "ContentView.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "XtermWebView.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace hl::bench {

namespace {

// How long the views may settle once every prompt shows, before memory is read.
constexpr int settleMilliseconds = 1500;
constexpr int pollMilliseconds = 20;

// The prompt probe of a bare document: it opens the page's one terminal over
// the whole page, and writes a prompt into it once its rows exist.
QString barePromptProbe(const QString& pane) {
    return QStringLiteral(R"JS((function (pane) {
  const host = window.harborlattice;
  if (!host) return false;
  if (!host.terminal(pane))
    host.open(pane, { left: 0, top: 0, width: innerWidth, height: innerHeight });
  const rows = document.querySelector('%1');
  if (!rows) return false;
  if (!window.benchPromptWritten) {
    window.benchPromptWritten = true;
    host.terminal(pane).writeBase64(btoa('bare$ '), false);
  }
  return /[$#]\s*$/m.test(rows.innerText);
})('%2'))JS")
        .arg(rowsSelector(pane), pane);
}

// Message handlers that accept and drop every post: the bare document runs to
// its end without the application's web channel.
const QString silentHandlers =
    QStringLiteral(R"JS(window.webkit = { messageHandlers: new Proxy({}, {
  get: () => ({ postMessage: function () {} }) }) };)JS");

// Polls every view's page until each shows a prompt, then reports the times
// and, after a moment to settle, the memory of the process tree; ends the loop.
class PromptWatch : public QObject {
  public:
    PromptWatch(std::function<QList<PaneTerminal>()> terminals, int expected,
                std::function<QString(const QString&)> probe, std::int64_t since)
        : terminals_(std::move(terminals)),
          expected_(expected),
          probe_(std::move(probe)),
          since_(since) {
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

    // Asks each terminal that has shown nothing yet, one question at a time each.
    void poll() {
        const auto now = monotonicNanoseconds();
        for (const PaneTerminal& terminal : terminals_()) {
            const auto key = std::make_pair(terminal.view, terminal.pane);
            Probe& probe = probes_[key];
            if (probe.shown || (probe.sentAt && now - *probe.sentAt < 1'000'000'000)) continue;
            probe.sentAt = now;
            QPointer<QWebEngineView> guard(terminal.view);
            terminal.view->page()->runJavaScript(probe_(terminal.pane),
                                                 [this, guard, key](const QVariant& result) {
                                                     if (!guard) return;
                                                     probes_[key].sentAt.reset();
                                                     if (result.toBool()) shown(key);
                                                 });
        }
    }

    void shown(const std::pair<QWebEngineView*, QString>& key) {
        Probe& probe = probes_[key];
        if (probe.shown) return;
        probe.shown = true;
        ++shownCount_;
        if (shownCount_ == 1) firstMs_ = millisecondsSince(since_);
        if (shownCount_ < expected_) return;
        const double allMs = millisecondsSince(since_);
        const TreeCpu cpu = treeCpu();
        std::printf("own_cpu_ms %.0f\nrenderer_cpu_ms %.0f\n", cpu.ownMs, cpu.renderersMs);
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

    std::function<QList<PaneTerminal>()> terminals_;
    int expected_;
    std::function<QString(const QString&)> probe_;
    std::int64_t since_;
    QTimer timer_;
    std::map<std::pair<QWebEngineView*, QString>, Probe> probes_;
    int shownCount_ = 0;
    double firstMs_ = 0;
};

}  // namespace

int prepare(int argc, char** argv, const fs::path& state, std::vector<int> tabs) {
    useStateFolder(state);
    ChildApplication qt(argc, argv, true);
    auto app = std::make_unique<hl::HarborlatticeApp>();
    auto& workspace = app->workspace();
    std::size_t panes = 0;
    {
        hl::MainWindow window(*app);
        window.show();
        app->delegate().scheduleDidFinishLaunching();
        if (!window.contentView()->openScratchWorkspace() || !workspace.selectedTab()) {
            std::fprintf(stderr, "app_bench: no scratch workspace\n");
            return 1;
        }
        std::optional<QUuid> first;
        for (const int count : tabs) {
            if (first) workspace.newTerminal();
            hl::TerminalTab* tab = workspace.selectedTab();
            if (!first) first = tab->id();
            // Each split halves the pane split least often so far.
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
            if (!ready) {
                std::fprintf(stderr, "app_bench: the panes did not all connect\n");
                return 1;
            }
            panes += tab->paneCount();
        }
        workspace.selectTab(*first);
        spinUntil([&] { return workspace.closeLedger().pending().empty(); }, 10s);
        spinUntil([] { return false; }, 500ms);
        std::printf("panes %zu\ndone\n", panes);
    }
    std::fflush(stdout);
    return 0;
}

// The application's own start-up on `state`, watched until every pane shows its prompt.
int runApp(int argc, char** argv, const fs::path& state, std::int64_t since) {
    useStateFolder(state);
    ChildApplication qt(argc, argv, true);
    auto app = std::make_unique<hl::HarborlatticeApp>();
    hl::TerminalTab* tab = app->workspace().selectedTab();
    if (!tab) {
        std::fprintf(stderr, "app_bench: nothing was restored from %s\n", state.c_str());
        return 1;
    }
    hl::MainWindow window(*app);
    window.show();
    app->delegate().scheduleDidFinishLaunching();
    // When every page has said "ready" and when every controller is connected:
    // the steps between the start and the prompts.
    QTimer steps;
    bool ready = false;
    bool connected = false;
    QObject::connect(&steps, &QTimer::timeout, [&] {
        if (!ready && static_cast<std::size_t>(visiblePaneTerminals(&window, true).size()) ==
                          tab->paneCount()) {
            ready = true;
            std::printf("ready_ms %.1f\n", millisecondsSince(since));
        }
        const auto panes = tab->panes();
        if (!connected && std::all_of(panes.begin(), panes.end(), [](auto* pane) {
                return pane->controller().isConnected();
            })) {
            connected = true;
            std::printf("connected_ms %.1f\n", millisecondsSince(since));
        }
        if (ready && connected) steps.stop();
    });
    steps.start(5);
    // A page is asked only once its document is ready: asking pages that are
    // still loading, every 20 ms each, loads the one renderer with work the
    // application never does.
    PromptWatch watch([&window] { return visiblePaneTerminals(&window, true); },
                      static_cast<int>(tab->paneCount()), promptProbe, since);
    return QApplication::exec();
}

// `count` plain views in one window of the application's size, each given the
// terminal document the way the application gives it, with handlers that drop
// the document's posts in place of the application's bridge.
int runBare(int argc, char** argv, const fs::path& state, int count, std::int64_t since) {
    useStateFolder(state);
    ChildApplication qt(argc, argv, false);
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
    QList<PaneTerminal> loaded;
    for (auto* view : views) {
        QObject::connect(view, &QWebEngineView::loadFinished, view, [view, &loaded](bool ok) {
            const PaneTerminal terminal{view, QStringLiteral("bare")};
            if (ok && !loaded.contains(terminal)) loaded << terminal;
        });
    }
    PromptWatch watch([&loaded] { return loaded; }, count, barePromptProbe, since);
    return QApplication::exec();
}

}  // namespace hl::bench
