// One terminal in the real window, against a real node and a real shell:
// copy and paste through the clipboard and the window's keys, the right-click
// menu, Find from the keyboard while a new terminal comes up, the font zoom
// across a restart, a renderer killed with SIGKILL coming back with its
// history, and every terminal page in one renderer process.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QScrollArea>
#include <QTest>
#include <QToolButton>
#include <QWebEnginePage>
#include <QWebEngineView>

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "AppTestSupport.h"
#include "ContentView.h"
#include "ElidedLabel.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "RunningApp.h"
#include "TerminalCommands.h"
#include "TerminalPaneView.h"
#include "TerminalSettings.h"
#include "TerminalWorkspaceView.h"
#include "XtermWebView.h"

namespace {

using namespace std::chrono_literals;
using hl::apptest::saveScreenshot;
using hl::apptest::spinFor;
using hl::apptest::spinUntil;

struct RunningApp : hl::apptest::RunningApp {
    hl::TerminalCommands& commands() { return *window.terminalCommands(); }
    hl::TerminalController* selected() {
        auto* tab = workspace().selectedTab();
        return tab ? &tab->pane(*tab->selectedPaneID())->controller() : nullptr;
    }
    // A controller's terminal: the tab's document, the pane and its coordinator.
    struct Terminal {
        QPointer<hl::XtermWebView> view;
        QUuid pane;
        QPointer<hl::XtermCoordinator> coordinator;
        explicit operator bool() const { return view && coordinator; }
        bool isReady() const { return coordinator && coordinator->isReady(); }
    };
    Terminal view(hl::TerminalController* controller) {
        for (auto* each : window.findChildren<hl::XtermWebView*>()) {
            for (const QUuid& pane : each->panes()) {
                if (each->coordinator(pane)->controller() == controller)
                    return {each, pane, each->coordinator(pane)};
            }
        }
        return {};
    }
    // Presses a chord as the window system would deliver it.
    void press(Qt::Key key, Qt::KeyboardModifiers modifiers) {
        QTest::keyClick(window.windowHandle(), key, modifiers);
    }
};

using Terminal = RunningApp::Terminal;

// The value of a script run with `terminal` naming the pane's terminal in its
// page; empty when it does not answer.
QString evaluate(const Terminal& view, const QString& script) {
    QString result;
    bool answered = false;
    if (!view) return result;
    const QString wrapped = "(terminal => eval(" + hl::XtermCoordinator::json(script) +
                            "))(window.harborlattice.xterm(\"" +
                            view.pane.toString(QUuid::WithoutBraces) + "\"))";
    view.view->webView()->page()->runJavaScript(wrapped, [&](const QVariant& value) {
        result = value.toString();
        answered = true;
    });
    spinUntil([&] { return answered; }, 10s);
    return result;
}

// Every line of the terminal's buffer, scrollback included.
QString screenText(const Terminal& view) {
    return evaluate(view,
                    "(() => { const b = terminal.buffer.active; let t = '';"
                    " for (let i = 0; i < b.length; i += 1)"
                    " t += b.getLine(i).translateToString(true) + '\\n'; return t; })()");
}

bool screenShows(const Terminal& view, const QString& text) {
    return spinUntil([&] { return screenText(view).contains(text); }, 20s);
}

void type(hl::TerminalController* controller, const QString& text) {
    controller->terminalSurfaceDidReceiveInput(text);
}

bool connected(hl::TerminalController* controller) {
    return spinUntil([&] { return controller->isConnected(); }, 30s);
}

// The web engine's renderers started by this process: the children of its zygotes.
int rendererProcessCount() {
    std::map<pid_t, pid_t> parents;
    std::map<pid_t, std::string> commandLines;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) continue;
        std::istringstream rest(line.substr(line.rfind(')') + 2));
        std::string state;
        pid_t parent = 0;
        rest >> state >> parent;
        const pid_t pid = std::stoi(name);
        parents[pid] = parent;
        std::ifstream command(entry.path() / "cmdline", std::ios::binary);
        commandLines[pid] = std::string{std::istreambuf_iterator<char>(command), {}};
    }
    const auto isZygote = [&](pid_t pid) {
        return commandLines[pid].find("--type=zygote") != std::string::npos;
    };
    std::set<pid_t> zygotes;
    for (const auto& [pid, parent] : parents) {
        if (parent == ::getpid() && isZygote(pid)) zygotes.insert(pid);
    }
    int renderers = 0;
    for (const auto& [pid, parent] : parents)
        renderers += zygotes.count(parent) > 0 && isZygote(pid) ? 1 : 0;
    return renderers;
}

// Six panes in three tabs, two of them kept hidden: one renderer for all.
TEST(TerminalWindowTest, EveryTerminalPageSharesOneRenderer) {
    RunningApp run;
    for (int tab = 0; tab < 3; ++tab) {
        if (tab == 0) {
            run.workspace().createScratchTerminal();
        } else {
            run.workspace().newTerminal();
        }
        run.workspace().split(true);
        for (auto* pane : run.workspace().selectedTab()->panes()) {
            ASSERT_TRUE(spinUntil([&] { return run.view(&pane->controller()).isReady(); }, 60s));
        }
    }
    const auto views = run.window.findChildren<hl::XtermWebView*>();
    ASSERT_EQ(views.size(), 3) << "one document for each tab";
    std::set<qint64> pids;
    for (auto* view : views)
        pids.insert(view->webView()->page()->renderProcessPid());
    EXPECT_EQ(pids.size(), 1u);
    EXPECT_EQ(rendererProcessCount(), 1);
}

TEST(TerminalWindowTest, CopyPasteMenuFindAndACrashedRenderer) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    auto* first = run.selected();
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(connected(first));
    const Terminal view = run.view(first);
    ASSERT_TRUE(view);
    ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));

    // The window's title follows the title a program gives the selected terminal.
    type(first, "printf '\\033]2;build-%s\\007' $((3*3))\r");
    EXPECT_TRUE(spinUntil([&] {
        return run.window.windowTitle() == "build-9 — Scratch — Harborlattice";
    })) << run.window.windowTitle().toStdString();

    // Copy: the selection goes to the clipboard through the window's key.
    type(first, "echo copy-$((6*7))\r");
    ASSERT_TRUE(screenShows(view, "copy-42"));
    run.commands().action("edit.selectAll")->trigger();
    ASSERT_TRUE(
        spinUntil([&] { return view.coordinator->selectionText().contains("copy-42"); }, 10s));
    QGuiApplication::clipboard()->clear();
    run.press(Qt::Key_C, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_TRUE(QGuiApplication::clipboard()->text().contains("copy-42"));

    // Paste: Shift+Insert types the clipboard into the shell, not a key
    // sequence; the shell asked for bracketed paste, so Enter runs it.
    QGuiApplication::clipboard()->setText("echo pasted-$((5+5))");
    run.press(Qt::Key_Insert, Qt::ShiftModifier);
    EXPECT_TRUE(screenShows(view, "echo pasted-$((5+5))"));
    type(first, "\r");
    EXPECT_TRUE(screenShows(view, "pasted-10"));
    if (QGuiApplication::clipboard()->supportsSelection()) {
        EXPECT_TRUE(spinUntil([&] {
            return QGuiApplication::clipboard()->text(QClipboard::Selection).contains("copy-42");
        }));
    }

    // The right-click menu is the terminal's, never the web engine's.
    QMenu* menu = view.view->contextMenu({10, 10});
    ASSERT_NE(menu, nullptr);
    QStringList entries;
    for (auto* action : menu->actions()) {
        if (!action->isSeparator()) entries << action->text();
    }
    EXPECT_EQ(entries, QStringList({"Copy", "Paste", "Select All", "Find…"}));
    delete menu;
    // Over a link it offers to open it or copy its address.
    evaluate(view, "window.webkit.messageHandlers.link.postMessage({pane: '" +
                       view.pane.toString(QUuid::WithoutBraces) +
                       "', body: 'https://harborlattice.test/a?b=1'})");
    ASSERT_TRUE(spinUntil([&] { return !view.coordinator->hoveredLink().isEmpty(); }, 5s));
    menu = view.view->contextMenu({10, 10});
    ASSERT_NE(menu, nullptr);
    entries.clear();
    for (auto* action : menu->actions()) {
        if (!action->isSeparator()) entries << action->text();
    }
    EXPECT_EQ(entries, QStringList({"Copy", "Paste", "Select All", "Find…", "Open Link",
                                    "Copy Link Address"}));
    menu->actions().last()->trigger();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "https://harborlattice.test/a?b=1");
    delete menu;
    EXPECT_EQ(view.view->webView()->contextMenuPolicy(), Qt::CustomContextMenu);

    // Find from the keyboard; a terminal that comes up meanwhile leaves the field alone.
    run.press(Qt::Key_F, Qt::ControlModifier | Qt::ShiftModifier);
    QLineEdit* field = run.commands().findField();
    ASSERT_NE(field, nullptr);
    ASSERT_TRUE(spinUntil([&] { return QApplication::focusWidget() == field; }, 5s));
    run.workspace().split(true);
    auto* second = run.selected();
    ASSERT_NE(second, first);
    QTest::keyClicks(field, "copy-");
    ASSERT_TRUE(connected(second));
    ASSERT_TRUE(spinUntil([&] { return run.view(second).isReady(); }, 30s));
    spinFor(500ms);
    QTest::keyClicks(field, "4");
    EXPECT_EQ(QApplication::focusWidget(), field);
    EXPECT_EQ(field->text(), "copy-4");

    // Enter searches the selected terminal: the new one has no match.
    QTest::keyClick(field, Qt::Key_Return);
    auto* matches = field->findChild<QLabel*>("control.findMatches");
    ASSERT_NE(matches, nullptr);
    EXPECT_TRUE(spinUntil([&] { return matches->isVisible() && matches->text() == "No matches"; }));
    run.workspace().selectAdjacentPane(-1);
    ASSERT_EQ(run.selected(), first);
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_TRUE(spinUntil([&] { return matches->text() == "1 of 1"; }))
        << matches->text().toStdString();
    saveScreenshot(&run.window, "terminal-find");
    QTest::keyClick(field, Qt::Key_Escape);
    EXPECT_FALSE(matches->isVisible());
    EXPECT_TRUE(
        spinUntil([&] { return view.view->isAncestorOf(QApplication::focusWidget()); }, 5s));

    // A renderer killed outright is replaced and repainted from the history.
    const qint64 renderer = view.view->webView()->page()->renderProcessPid();
    ASSERT_GT(renderer, 0);
    ::kill(static_cast<pid_t>(renderer), SIGKILL);
    EXPECT_TRUE(spinUntil(
        [&] { return first->status() == "Terminal display crashed · repainted from history"; },
        20s));
    ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));
    EXPECT_TRUE(screenShows(view, "pasted-10"));
    EXPECT_NE(view.view->webView()->page()->renderProcessPid(), renderer);
    type(first, "echo after-$((2*3))\r");
    EXPECT_TRUE(screenShows(view, "after-6"));
}

// A tab shown before comes back with the very same page: nothing reloaded or
// replayed, the scroll position and the selection as they were. A closed tab's
// views go at once, and the bound drops the tab shown least recently.
TEST(TerminalWindowTest, ATabShownBeforeKeepsItsPageAndAClosedOneLosesIt) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    auto* first = run.selected();
    ASSERT_TRUE(connected(first));
    const Terminal firstView = run.view(first);
    ASSERT_TRUE(spinUntil([&] { return firstView.isReady(); }, 30s));
    const QUuid firstTab = *run.workspace().selectedTabID();
    type(first, "seq 1 400; echo listed-$((6*7))\r");
    ASSERT_TRUE(screenShows(firstView, "listed-42"));
    evaluate(firstView, "terminal.scrollLines(-60); terminal.select(0, 5, 12); window.kept = 1; 0");
    const QString viewport = evaluate(firstView, "String(terminal.buffer.active.viewportY)");
    const QString selection = evaluate(firstView, "terminal.getSelection()");
    ASSERT_FALSE(selection.isEmpty());

    run.workspace().newTerminal();
    auto* second = run.selected();
    ASSERT_NE(second, first);
    ASSERT_TRUE(connected(second));
    const Terminal secondView = run.view(second);
    ASSERT_TRUE(spinUntil([&] { return secondView.isReady(); }, 30s));
    ASSERT_NE(secondView.view, firstView.view) << "a document for each tab";
    const QUuid secondTab = *run.workspace().selectedTabID();
    ASSERT_TRUE(firstView);
    EXPECT_FALSE(firstView.view->isVisible());

    run.workspace().selectTab(firstTab);
    ASSERT_TRUE(spinUntil([&] { return firstView && firstView.view->isVisible(); }));
    EXPECT_EQ(run.view(first).view, firstView.view);
    EXPECT_EQ(run.view(first).coordinator, firstView.coordinator);
    EXPECT_EQ(evaluate(firstView, "String(window.kept)"), "1");
    EXPECT_EQ(evaluate(firstView, "String(terminal.buffer.active.viewportY)"), viewport);
    EXPECT_EQ(evaluate(firstView, "terminal.getSelection()"), selection);

    // Closing the hidden tab destroys its view; the bound drops the other one.
    run.workspace().closeTab(secondTab);
    EXPECT_TRUE(spinUntil([&] { return secondView.view.isNull(); }));
    run.workspace().newTerminal();
    ASSERT_TRUE(connected(run.selected()));
    auto* workspaceView = run.window.contentView()->workspaceView();
    EXPECT_EQ(workspaceView->keptLayoutCount(), 2);
    workspaceView->setKeptPaneLimit(1);
    EXPECT_TRUE(spinUntil([&] { return firstView.view.isNull(); }));
    EXPECT_EQ(workspaceView->keptLayoutCount(), 1);
    run.workspace().selectTab(firstTab);
    EXPECT_TRUE(spinUntil([&] { return run.view(first) && run.view(first).view->isVisible(); }));
}

TEST(TerminalWindowTest, FontZoomIsKeptAcrossARestart) {
    {
        RunningApp run;
        run.workspace().createScratchTerminal();
        const Terminal view = run.view(run.selected());
        ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));
        run.press(Qt::Key_Equal, Qt::ControlModifier);
        run.press(Qt::Key_Plus, Qt::ControlModifier | Qt::ShiftModifier);
        EXPECT_EQ(hl::XtermWebView::fontSize(), 15);
        EXPECT_TRUE(spinUntil([&] { return evaluate(view, "terminal.options.fontSize") == "15"; }));
    }
    hl::XtermWebView::setFontSizeForAll(hl::XtermWebView::defaultFontSize);
    RunningApp again;
    EXPECT_EQ(hl::XtermWebView::fontSize(), 15);
    const Terminal view = again.view(again.selected());
    ASSERT_TRUE(view);
    ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));
    EXPECT_TRUE(spinUntil([&] { return evaluate(view, "terminal.options.fontSize") == "15"; }));
    again.press(Qt::Key_0, Qt::ControlModifier);
    EXPECT_EQ(hl::XtermWebView::fontSize(), hl::XtermWebView::defaultFontSize);
    EXPECT_TRUE(spinUntil([&] { return evaluate(view, "terminal.options.fontSize") == "13"; }));
}

}  // namespace

namespace {

// The strip's entry of the selected tab: its select button or its rename field.
QWidget* tabEntry(RunningApp& run, const QString& objectName) {
    const QString entry =
        "tab." + run.workspace().selectedTabID().value_or(QUuid()).toString(QUuid::WithoutBraces);
    for (auto* each : run.window.findChildren<QWidget*>(entry)) {
        if (auto* found = hl::apptest::find(each, objectName)) return found;
    }
    return nullptr;
}

void typeIntoWindow(RunningApp& run, const QString& text) {
    for (const QChar character : text)
        QTest::keyClick(run.window.windowHandle(), character.toLatin1());
}

// A tab's label follows its terminal's title until the user renames it; the
// rename field has the keyboard (nothing reaches the shell), Enter keeps the
// name, Escape drops it, and the keyboard goes back to the terminal.
TEST(TerminalWindowTest, ARenamedTabKeepsItsNameAndTheFieldKeepsTheKeys) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    auto* first = run.selected();
    ASSERT_TRUE(connected(first));
    const Terminal view = run.view(first);
    ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));
    view.coordinator->takeKeyboard();
    type(first, "printf '\\033]2;job-%s\\007' $((2*3))\r");
    const auto label = [&] {
        auto* select = qobject_cast<QToolButton*>(tabEntry(run, "tab.select"));
        return select ? select->text() : QString();
    };
    EXPECT_TRUE(spinUntil([&] { return label() == "job-6"; })) << label().toStdString();

    QTest::mouseDClick(tabEntry(run, "tab.select"), Qt::LeftButton);
    QLineEdit* field = nullptr;
    ASSERT_TRUE(spinUntil([&] {
        field = qobject_cast<QLineEdit*>(tabEntry(run, "tab.rename"));
        return field && QApplication::focusWidget() == field;
    })) << "the field has the keyboard";
    EXPECT_EQ(field->selectedText(), "Scratch");
    typeIntoWindow(run, "build");
    QTest::keyClick(run.window.windowHandle(), Qt::Key_Return);
    EXPECT_TRUE(spinUntil([&] { return run.workspace().selectedTab()->title() == "build"; }));
    EXPECT_TRUE(spinUntil([&] { return label() == "build"; })) << label().toStdString();

    QTest::mouseDClick(tabEntry(run, "tab.select"), Qt::LeftButton);
    ASSERT_TRUE(
        spinUntil([&] { return QApplication::focusWidget() == tabEntry(run, "tab.rename"); }));
    typeIntoWindow(run, "zzz");
    QTest::keyClick(run.window.windowHandle(), Qt::Key_Escape);
    EXPECT_TRUE(spinUntil([&] { return tabEntry(run, "tab.rename") == nullptr; }));
    EXPECT_EQ(run.workspace().selectedTab()->title(), "build");
    EXPECT_EQ(label(), "build");

    // The keyboard is the terminal's again.
    ASSERT_TRUE(spinUntil([&] {
        return QApplication::focusWidget() && view.view->isAncestorOf(QApplication::focusWidget());
    }));
    spinFor(300ms);
    typeIntoWindow(run, "echo back-$((1+1))");
    QTest::keyClick(run.window.windowHandle(), Qt::Key_Return);
    EXPECT_TRUE(screenShows(view, "back-2")) << screenText(view).toStdString();
    const QString screen = screenText(view);
    EXPECT_FALSE(screen.contains("build")) << screen.toStdString();
    EXPECT_FALSE(screen.contains("zzz")) << screen.toStdString();
}

// At 800x600 every tab can be reached: the selected one is always in view.
TEST(TerminalWindowTest, TheSelectedTabIsInViewInANarrowWindow) {
    RunningApp run;
    run.window.resize(800, 600);
    run.workspace().createScratchTerminal();
    for (int i = 0; i < 7; ++i)
        run.workspace().newTerminal();
    auto* strip = run.window.findChild<QScrollArea*>("tabs.strip");
    ASSERT_NE(strip, nullptr);
    for (int i = 0; i < 8; ++i) {
        run.workspace().selectAdjacentTab(i < 4 ? -1 : 1);
        QWidget* selected = nullptr;
        EXPECT_TRUE(spinUntil([&] {
            selected = tabEntry(run, "tab.select");
            if (!selected) return false;
            const QRect inViewport(selected->mapTo(strip->viewport(), QPoint(0, 0)),
                                   selected->size());
            return strip->viewport()->rect().contains(inViewport);
        })) << i;
    }
    hl::apptest::saveScreenshot(&run.window, "tab-strip-800x600");
}

// Keys typed after the last pane has closed reach nothing: not the empty
// page's button, which would open a new terminal.
TEST(TerminalWindowTest, KeysAfterTheLastPaneClosedReachNothing) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    auto* only = run.selected();
    ASSERT_TRUE(connected(only));
    const Terminal view = run.view(only);
    ASSERT_TRUE(spinUntil([&] { return view.isReady(); }, 30s));
    view.coordinator->takeKeyboard();
    ASSERT_TRUE(spinUntil([&] {
        return QApplication::focusWidget() && view.view->isAncestorOf(QApplication::focusWidget());
    }));
    run.press(Qt::Key_W, Qt::ControlModifier | Qt::ShiftModifier);
    ASSERT_TRUE(spinUntil([&] { return run.workspace().visibleTabs().empty(); }));
    spinFor(200ms);
    ASSERT_NE(QApplication::focusWidget(), hl::apptest::find(&run.window, "empty.action"));
    typeIntoWindow(run, "x ");
    QTest::keyClick(run.window.windowHandle(), Qt::Key_Return);
    QTest::keyClick(run.window.windowHandle(), Qt::Key_Space);
    spinFor(300ms);
    EXPECT_TRUE(run.workspace().visibleTabs().empty());
    EXPECT_EQ(run.workspace().selectedTab(), nullptr);
}

// The footer follows the shell's directory as the node reports it: below the
// pane's folder it is inside, elsewhere it says that the shell starts fresh
// after a restart.
TEST(TerminalWindowTest, TheFooterShowsWhereTheShellIs) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    auto* shell = run.selected();
    ASSERT_TRUE(connected(shell));
    const QString folder = run.workspace().selectedTab()->panes().front()->context().cwd;
    auto* footer = hl::apptest::find<hl::ElidedLabel>(&run.window, "pane.cwd");
    ASSERT_NE(footer, nullptr);
    EXPECT_TRUE(spinUntil([&] { return footer->fullText() == folder; }))
        << footer->fullText().toStdString();
    type(shell, "mkdir -p inner/deeper && cd inner/deeper\r");
    EXPECT_TRUE(spinUntil([&] { return footer->fullText() == folder + "/inner/deeper"; }))
        << footer->fullText().toStdString();
    type(shell, "cd /tmp\r");
    EXPECT_TRUE(spinUntil([&] {
        return footer->fullText() == "/tmp" + hl::TerminalPaneView::shellOutsideFolderNote;
    })) << footer->fullText().toStdString();
    EXPECT_TRUE(
        footer->fullText().endsWith(" · outside the pane's folder · starts fresh after a restart"));
    type(shell, "cd -\r");
    EXPECT_TRUE(spinUntil([&] { return footer->fullText() == folder + "/inner/deeper"; }))
        << footer->fullText().toStdString();
    EXPECT_TRUE(hl::TerminalPaneView::isInsideFolder("/a/b", "/a/b/"));
    EXPECT_FALSE(hl::TerminalPaneView::isInsideFolder("/a/bc", "/a/b"));
}

}  // namespace

namespace {

// The terminal settings reach a live terminal's page at once, and a page
// opened later takes them on as it loads.
TEST(TerminalWindowTest, TerminalSettingsReachLiveAndLaterPages) {
    RunningApp run;
    run.workspace().createScratchTerminal();
    const Terminal first = run.view(run.selected());
    ASSERT_TRUE(spinUntil([&] { return first.isReady(); }, 30s));
    // Following a light desktop (the offscreen platform's palette) from the start.
    EXPECT_TRUE(spinUntil([&] {
        return evaluate(first, "terminal.options.theme.background") == "#fbfbfc";
    })) << evaluate(first, "terminal.options.theme.background").toStdString();
    hl::TerminalSettings chosen = run.app->terminalSettings().settings();
    chosen.fontFamily = "DejaVu Sans Mono";
    chosen.colorScheme = hl::TerminalSettings::ColorScheme::Light;
    chosen.scrollbackLines = 500;
    chosen.cursorShape = hl::TerminalSettings::CursorShape::Bar;
    run.app->terminalSettings().setSettings(chosen);
    const auto showsChoice = [](const Terminal& view) {
        return spinUntil([&] {
            return evaluate(view, "terminal.options.theme.background") == "#fbfbfc" &&
                   evaluate(view, "terminal.options.fontFamily").startsWith("'DejaVu Sans Mono'") &&
                   evaluate(view, "String(terminal.options.scrollback)") == "500" &&
                   evaluate(view, "terminal.options.cursorStyle") == "bar";
        });
    };
    EXPECT_TRUE(showsChoice(first));

    run.workspace().createScratchTerminal();  // a tab of its own, so a page of its own
    const Terminal later = run.view(run.selected());
    ASSERT_TRUE(later);
    EXPECT_NE(later.view, first.view);
    ASSERT_TRUE(spinUntil([&] { return later.isReady(); }, 30s));
    EXPECT_TRUE(showsChoice(later));
    run.app->terminalSettings().setSettings(hl::TerminalSettings{});
}

}  // namespace
