// Child-side helpers of app_bench.
#include "BenchWindow.h"

#include <stdlib.h>
#include <unistd.h>

#include <QWebEnginePage>
#include <QWebEngineView>

#include <optional>

#include "BenchProcesses.h"
#include "ProcessEnvironment.h"
#include "TerminalPane.h"
#include "XtermWebView.h"

namespace fs = std::filesystem;

namespace hl::bench {

// Reads the rows' text without laying the page out, which would load the
// renderer with work of the benchmark's own while the pages start.
QString rowsSelector(const QString& pane) {
    return QStringLiteral("[data-pane=\"%1\"] .xterm-rows").arg(pane);
}

QString promptProbe(const QString& pane) {
    return QStringLiteral(R"JS((function () {
  const rows = document.querySelector('%1');
  return !!rows && Array.prototype.some.call(rows.children, row => /[$#]\s*$/.test(row.textContent));
})())JS")
        .arg(rowsSelector(pane));
}

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

ChildApplication::ChildApplication(int argc, char** argv, bool application) {
    hl::prepareProcessEnvironment();
    if (application) {
        arguments_ = hl::withWebEngineOptions(argc, argv);
    } else {
        arguments_.assign(argv, argv + argc);
        arguments_.push_back(nullptr);
    }
    argc_ = static_cast<int>(arguments_.size()) - 1;
    qt_ = std::make_unique<QApplication>(argc_, arguments_.data());
    QApplication::setApplicationName(QStringLiteral("Harborlattice"));
}

double millisecondsSince(std::int64_t start) {
    return static_cast<double>(monotonicNanoseconds() - start) / 1e6;
}

bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        ::usleep(2000);
    }
    return true;
}

TreeMemory treeProportionalSet() {
    TreeMemory memory;
    const auto tree = processTree(::getpid());
    memory.processes = tree.size();
    for (const pid_t pid : tree) {
        const long pss = proportionalSetKiB(pid);
        memory.totalKiB += pss;
        if (pid == ::getpid()) {
            memory.ownKiB = pss;
        } else if (isRendererProcess(pid)) {
            memory.renderersKiB += pss;
            ++memory.renderers;
        }
    }
    return memory;
}

TreeCpu treeCpu() {
    TreeCpu cpu;
    for (const pid_t pid : processTree(::getpid())) {
        if (pid == ::getpid()) {
            cpu.ownMs = cpuMilliseconds(pid);
        } else if (isRendererProcess(pid)) {
            cpu.renderersMs += cpuMilliseconds(pid);
        }
    }
    return cpu;
}

bool pageAnswersTrue(QWebEngineView* view, const QString& script,
                     std::chrono::milliseconds timeout) {
    auto answer = std::make_shared<std::optional<bool>>();
    view->page()->runJavaScript(script,
                                [answer](const QVariant& result) { *answer = result.toBool(); });
    spinUntil([&] { return answer->has_value(); }, timeout);
    return answer->value_or(false);
}

QList<PaneTerminal> visiblePaneTerminals(QWidget* window, bool ready) {
    QList<PaneTerminal> terminals;
    for (auto* document : window->findChildren<hl::XtermWebView*>()) {
        if (!document->isVisible()) continue;
        for (const QUuid& pane : document->panes()) {
            if (!ready || document->coordinator(pane)->isReady())
                terminals.append({document->webView(), pane.toString(QUuid::WithoutBraces)});
        }
    }
    return terminals;
}

QList<PaneTerminal> tabPaneTerminals(QWidget* window, const TerminalTab& tab) {
    QList<PaneTerminal> terminals;
    for (auto* document : window->findChildren<hl::XtermWebView*>()) {
        for (auto* each : tab.panes()) {
            if (document->coordinator(each->id()))
                terminals.append({document->webView(), each->id().toString(QUuid::WithoutBraces)});
        }
    }
    return terminals;
}

}  // namespace hl::bench
