// The child side of app_bench: a private state folder, the Qt application of
// a child run (with or without the application's one shared renderer), event
// loop waits, page probes, and the memory of the process tree by kind.
#pragma once

#include <QApplication>
#include <QList>
#include <QString>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

class QWebEngineView;

namespace hl {
class TerminalTab;
}

namespace hl::bench {

// Private home, preferences, data and socket inside `state`; the offscreen platform.
void useStateFolder(const std::filesystem::path& state);

// The QApplication of a child run, built after the process's preparation;
// `application` adds the application's own web engine options (one renderer
// for every terminal page), which the bare baseline leaves out.
class ChildApplication {
  public:
    ChildApplication(int argc, char** argv, bool application);
    QApplication& qt() { return *qt_; }

  private:
    std::vector<char*> arguments_;
    int argc_ = 0;
    std::unique_ptr<QApplication> qt_;
};

double millisecondsSince(std::int64_t start);

// Spins the event loop until `condition` holds or `timeout` passes.
bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// Pss of this process and its descendants (the web engine's processes), in
// KiB: all of it, this process's own share, and the renderers'.
struct TreeMemory {
    long totalKiB = 0;
    long ownKiB = 0;
    long renderersKiB = 0;
    std::size_t processes = 0;
    std::size_t renderers = 0;
};
TreeMemory treeProportionalSet();

// CPU time used so far by this process and by the renderers below it, in ms.
struct TreeCpu {
    double ownMs = 0;
    double renderersMs = 0;
};
TreeCpu treeCpu();

// A pane's terminal: its tab's page and the pane's name in that page.
struct PaneTerminal {
    QWebEngineView* view = nullptr;
    QString pane;
    bool operator==(const PaneTerminal&) const = default;
};

// The selector of a pane's terminal rows in its page.
QString rowsSelector(const QString& pane);

// True once the pane's terminal rows end a line with a prompt sign.
QString promptProbe(const QString& pane);

// Runs `script` in the view's page and waits for its answer (false when the
// page does not answer within `timeout`).
bool pageAnswersTrue(QWebEngineView* view, const QString& script,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5));

// The terminals of the window's panes that are shown now; with `ready`, only
// those whose terminal has said "ready".
QList<PaneTerminal> visiblePaneTerminals(QWidget* window, bool ready = false);
// The terminals of `tab`'s panes, shown or not.
QList<PaneTerminal> tabPaneTerminals(QWidget* window, const TerminalTab& tab);

}  // namespace hl::bench
