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

// The prompt probe, after writing a prompt into the bare document's terminal once its rows exist.
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
        const auto now = monotonicNanoseconds();
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

    std::function<QList<QWebEngineView*>()> views_;
    int expected_;
    QString probe_;
    std::int64_t since_;
    QTimer timer_;
    std::map<QWebEngineView*, Probe> probes_;
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
        const auto views = window.findChildren<hl::XtermWebView*>();
        if (!ready && static_cast<std::size_t>(views.size()) == tab->paneCount() &&
            std::all_of(views.begin(), views.end(),
                        [](auto* view) { return view->coordinator().isReady(); })) {
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
    PromptWatch watch(
        [&window] {
            QList<QWebEngineView*> views;
            for (auto* pane : window.findChildren<hl::XtermWebView*>()) {
                if (pane->isVisible() && pane->coordinator().isReady()) views << pane->webView();
            }
            return views;
        },
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
    QList<QWebEngineView*> loaded;
    for (auto* view : views) {
        QObject::connect(view, &QWebEngineView::loadFinished, view, [view, &loaded](bool ok) {
            if (ok && !loaded.contains(view)) loaded << view;
        });
    }
    PromptWatch watch([&loaded] { return loaded; }, count, barePromptProbe, since);
    return QApplication::exec();
}

}  // namespace hl::bench
