// The application against a real node over its real socket, with real shells:
// start-up starting the node only once launching has finished; a project added,
// opened, split, resized, trimmed and renamed through the window's own widgets;
// a second project removed through its dialog; then a restart on the same
// preferences that finds every terminal again; and a closed window that leaves
// the shells in the node.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QWebEngineView>

#include <map>

#include "AppTestSupport.h"
#include "ContentView.h"
#include "HarborlatticeApp.h"
#include "MainWindow.h"
#include "PaneLayoutView.h"
#include "RunningApp.h"
#include "TerminalPaneView.h"
#include "TerminalWorkspaceView.h"
#include "XtermWebView.h"

namespace {

using namespace std::chrono_literals;
using hl::apptest::find;
using hl::apptest::rendererBytes;
using hl::apptest::saveScreenshot;
using hl::apptest::socketPath;
using hl::apptest::spinFor;
using hl::apptest::spinUntil;

using hl::apptest::RunningApp;

QString folderFor(const QString& name) {
    const auto path = hl::apptest::baseFolder() / "projects" / name.toStdString();
    std::filesystem::create_directories(path);
    return QString::fromStdString(path.string());
}

// The status texts the pane views of the selected tab show.
QStringList paneStatuses(QWidget* root) {
    QStringList texts;
    for (auto* label : root->findChildren<QLabel*>("pane.status")) {
        if (label->isVisibleTo(root)) texts << label->text();
    }
    return texts;
}

// Waits until every pane of the tab has shown some output, and the renderers a moment more.
void waitForOutput(hl::TerminalTab* tab) {
    spinUntil([&] {
        for (auto* pane : tab->panes()) {
            if (pane->controller().rendererHistoryBytes() == 0) return false;
        }
        return true;
    });
    spinFor(400ms);
}

bool allPanesShow(QWidget* root, const QString& status, int count) {
    const QStringList texts = paneStatuses(root);
    return texts.size() == count && texts.count(status) == count;
}

// The widget once it is shown; null if it does not come.
QWidget* waitFor(QWidget* root, const QString& objectName) {
    QWidget* found = nullptr;
    spinUntil([&] { return (found = find(root, objectName)) != nullptr; }, 5s);
    return found;
}

void click(QWidget* widget) {
    ASSERT_NE(widget, nullptr);
    QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center());
}

// Drags the divider by `dx, dy` from its centre in one pointer move.
void drag(QWidget* divider, QPoint by) {
    const QPoint start = divider->rect().center();
    const QPoint globalEnd = divider->mapToGlobal(start) + by;
    QTest::mousePress(divider, Qt::LeftButton, {}, start);
    QTest::mouseMove(divider, divider->mapFromGlobal(globalEnd));
    QTest::mouseRelease(divider, Qt::LeftButton, {}, divider->mapFromGlobal(globalEnd));
}

TEST(ApplicationWindowTest, TheNodeStartsOnlyOnceLaunchingHasFinished) {
    const std::string socket = (hl::apptest::baseFolder() / "launch.sock").string();
    const QByteArray previous = qgetenv("HARBORLATTICE_SOCKET");
    qputenv("HARBORLATTICE_SOCKET", QByteArray::fromStdString(socket));
    {
        auto app = std::make_unique<hl::HarborlatticeApp>(hl::apptest::baseFolder() / "launch.db");
        hl::MainWindow window(*app);
        window.show();
        spinFor(300ms);
        EXPECT_FALSE(hl::apptest::nodeAnswers(socket)) << "nothing before launching has finished";
        EXPECT_EQ(find<QLabel>(&window, "empty.title")->text(), "Add your first project");
        EXPECT_NE(find(&window, "sidebar.addFirstProject"), nullptr);
        EXPECT_EQ(find<QLabel>(&window, "workspace.scratch.subtitle")->text(),
                  "Create a workspace separate from projects");
        saveScreenshot(&window, "01-empty");

        app->delegate().scheduleDidFinishLaunching();
        EXPECT_TRUE(spinUntil([&] { return hl::apptest::nodeAnswers(socket); }, 10s));
    }
    qputenv("HARBORLATTICE_SOCKET", previous);
}

TEST(ApplicationWindowTest, AProjectLivesThroughSplitsDialogsAndARestart) {
    const QString alphaRoot = folderFor("alpha");
    const QString betaRoot = folderFor("beta");
    std::map<QUuid, QString> sessions;
    QList<QUuid> tabOrder;
    std::optional<hl::PaneLayout> savedLayout;
    QUuid markedID;
    {
        RunningApp run;
        auto* content = run.content();
        auto& workspace = run.workspace();

        // Added and opened: the row is highlighted and its shell connects.
        const auto alpha = content->addProject("alpha", alphaRoot, "alpha-id");
        ASSERT_TRUE(alpha);
        ASSERT_TRUE(spinUntil([&] { return find(&run.window, "workspace.project.alpha-id"); }));
        EXPECT_EQ(run.app->catalog().selectedProjectID(), "alpha-id");
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 1); }))
            << paneStatuses(&run.window).join(", ").toStdString();
        EXPECT_EQ(find(&run.window, "tab.paneCount"), nullptr) << "one pane shows no count";
        auto* newTab = find<QToolButton>(&run.window, "tabs.new");
        ASSERT_NE(newTab, nullptr);
        EXPECT_EQ(newTab->toolTip(), "New terminal in alpha (Ctrl+Shift+T)");

        // Split right through the button, then down: three shells, the strip counts them.
        click(waitFor(&run.window, "control.splitRight"));
        // Down through its key, which works with the terminal focused.
        QTest::keyClick(&run.window, Qt::Key_O, Qt::ControlModifier | Qt::ShiftModifier);
        hl::TerminalTab* tab = workspace.selectedTab();
        ASSERT_NE(tab, nullptr);
        EXPECT_EQ(tab->layout().signature(), "H(P,V(P,P))");
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 3); }))
            << paneStatuses(&run.window).join(", ").toStdString();
        ASSERT_TRUE(spinUntil([&] { return find(&run.window, "tab.paneCount"); }));
        EXPECT_EQ(find<QLabel>(&run.window, "tab.paneCount")->text(), "3");
        EXPECT_EQ(find<QLabel>(&run.window, "pane.cwd")->toolTip(), alphaRoot);
        waitForOutput(tab);
        spinFor(2500ms);  // the renderer's first start in a process takes a moment
        saveScreenshot(&run.window, "02-splits");

        // The divider between left and right follows the pointer, within its limit.
        const QUuid rootSplit = tab->layout().id();
        auto* layoutView = content->workspaceView()->paneLayoutView();
        auto* divider = layoutView->divider(rootSplit);
        ASSERT_NE(divider, nullptr);
        const int extent = layoutView->width();
        drag(divider, QPoint(extent / 5, 0));
        const double moved = workspace.selectedTab()->layout().ratio();
        EXPECT_NEAR(moved, 0.7, 0.01);
        EXPECT_FALSE(layoutView->drag(rootSplit)->draftRatio()) << "the drag has ended";
        const auto* leftPane = layoutView->paneView(tab->layout().first().id());
        EXPECT_NEAR(leftPane->width(), extent * moved - 3, 2);
        drag(divider, QPoint(extent * 2, 0));
        EXPECT_DOUBLE_EQ(workspace.selectedTab()->layout().ratio(), 0.9) << "held at the limit";
        // The split on the right is a drag state of its own, along its own axis.
        const QUuid innerSplit = tab->layout().second().id();
        auto* innerDivider = layoutView->divider(innerSplit);
        ASSERT_NE(innerDivider, nullptr);
        EXPECT_EQ(innerDivider->axis(), hl::SplitAxis::Vertical);
        drag(innerDivider, QPoint(0, layoutView->height() / 10));
        EXPECT_NEAR(workspace.selectedTab()->layout().second().ratio(), 0.6, 0.01);
        EXPECT_DOUBLE_EQ(workspace.selectedTab()->layout().ratio(), 0.9);

        // A click on a pane selects it; the close command closes that pane only.
        const QUuid firstPane = tab->layout().first().id();
        click(layoutView->paneView(firstPane)->findChild<QWidget*>("pane.statusLine"));
        EXPECT_EQ(tab->selectedPaneID(), firstPane);
        QTest::keyClick(&run.window, Qt::Key_W, Qt::ControlModifier | Qt::ShiftModifier);
        EXPECT_TRUE(run.window.isVisible()) << "the close command never closes the window";
        EXPECT_EQ(tab->paneCount(), 2u);
        EXPECT_EQ(tab->layout().signature(), "V(P,P)");
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 2); }));

        // Command keys typed while a terminal has the keyboard still reach the
        // window, through the platform's path for keys.
        QWebEngineView* page = layoutView->document()->webView();
        ASSERT_NE(page, nullptr);
        page->setFocus();
        QTest::keyClick(run.window.windowHandle(), Qt::Key_E,
                        Qt::ControlModifier | Qt::ShiftModifier);
        EXPECT_EQ(tab->paneCount(), 3u);
        QTest::keyClick(run.window.windowHandle(), Qt::Key_W,
                        Qt::ControlModifier | Qt::ShiftModifier);
        EXPECT_EQ(tab->paneCount(), 2u);
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 2); }));

        // A second tab through the strip, closed again through its own button.
        click(waitFor(&run.window, "tabs.new"));
        ASSERT_EQ(workspace.visibleTabs().size(), 2u);
        hl::TerminalTab* second = workspace.visibleTabs()[1];
        EXPECT_EQ(workspace.selectedTab(), second);
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 1); }));
        QWidget* entry = nullptr;
        ASSERT_TRUE(spinUntil([&] {
            entry = find(&run.window, "tab." + second->id().toString(QUuid::WithoutBraces));
            return entry != nullptr;
        }));
        click(entry->findChild<QToolButton*>("tab.close"));
        ASSERT_EQ(workspace.visibleTabs().size(), 1u);
        EXPECT_EQ(workspace.selectedTab(), tab);

        // The Scratch row creates its workspace once and then switches to it.
        click(waitFor(&run.window, "workspace.scratch"));
        EXPECT_EQ(workspace.activeWorkspaceID(), "scratch");
        EXPECT_FALSE(run.app->catalog().selectedProjectID());
        ASSERT_TRUE(spinUntil([&] {
            auto* subtitle = find<QLabel>(&run.window, "workspace.scratch.subtitle");
            return subtitle && subtitle->text() == "1 tab · separate from projects";
        }));
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 1); }));
        click(waitFor(&run.window, "workspace.project.alpha-id"));
        EXPECT_EQ(workspace.activeWorkspaceID(), "project:alpha-id");
        EXPECT_EQ(run.app->catalog().selectedProjectID(), "alpha-id");

        // A second project: renamed through its dialog, then removed through the other.
        ASSERT_TRUE(content->addProject("beta", betaRoot, "beta-id"));
        ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Connected", 1); }));
        QAction* rename = nullptr;
        ASSERT_TRUE(spinUntil([&] {
            auto* menu = find(&run.window, "project.actions.beta-id");
            rename = menu ? menu->findChild<QAction*>("project.rename") : nullptr;
            return rename != nullptr;
        }));
        rename->trigger();
        QDialog* dialog = content->renameDialog();
        ASSERT_NE(dialog, nullptr);
        ASSERT_TRUE(spinUntil([&] { return dialog->isVisible(); }));
        EXPECT_EQ(dialog->findChild<QLabel*>("dialog.message")->text(),
                  "This changes only the name shown in Harborlattice.");
        auto* field = dialog->findChild<QLineEdit*>("dialog.field");
        EXPECT_EQ(field->text(), "beta");
        field->setText("   ");
        click(dialog->findChild<QPushButton*>("dialog.confirm"));
        EXPECT_TRUE(dialog->isVisible()) << "a refused rename keeps the dialog";
        field->setText("Gamma");
        saveScreenshot(dialog, "03-rename");
        click(dialog->findChild<QPushButton*>("dialog.confirm"));
        ASSERT_TRUE(spinUntil([&] { return content->renameDialog() == nullptr; }));
        EXPECT_EQ(workspace.selectedTab()->title(), "Gamma");
        ASSERT_TRUE(spinUntil([&] {
            auto* row = find(&run.window, "workspace.project.beta-id");
            auto* name = row ? row->findChild<QLabel*>("project.name") : nullptr;
            return name && name->text() == "Gamma";
        }));
        saveScreenshot(&run.window, "04-two-projects");

        find(&run.window, "project.actions.beta-id")
            ->findChild<QAction*>("project.remove")
            ->trigger();
        dialog = content->removeDialog();
        ASSERT_NE(dialog, nullptr);
        EXPECT_EQ(dialog->findChild<QLabel*>("dialog.message")->text(),
                  "This closes every terminal in Gamma, here and on your other computers, and "
                  "removes its saved workspace. The folder and its files will not be changed.");
        saveScreenshot(dialog, "05-remove");
        click(dialog->findChild<QPushButton*>("dialog.confirm"));
        ASSERT_TRUE(spinUntil([&] { return content->removeDialog() == nullptr; }));
        EXPECT_FALSE(workspace.hasWorkspace("beta-id"));
        EXPECT_EQ(run.app->catalog().projects().size(), 1u);
        EXPECT_EQ(workspace.activeWorkspaceID(), "project:alpha-id");
        ASSERT_TRUE(spinUntil([&] { return !find(&run.window, "workspace.project.beta-id"); }));

        // Something to find again after the restart, typed once the shell is up.
        auto* marked = workspace.selectedTab()->panes().front();
        waitForOutput(workspace.selectedTab());
        marked->controller().terminalSurfaceDidReceiveInput("echo marker-$((6*7))\n");
        ASSERT_TRUE(
            spinUntil([&] { return rendererBytes(marked->controller()).contains("marker-42"); }));
        markedID = marked->id();

        savedLayout = workspace.selectedTab()->layout();
        for (auto* each : workspace.tabs()) {
            tabOrder << each->id();
            for (auto* pane : each->panes())
                sessions[pane->id()] = *pane->sessionID();
        }
        ASSERT_EQ(sessions.size(), 3u);
        ASSERT_TRUE(spinUntil([&] { return workspace.closeLedger().pending().empty(); }));
    }

    // Every remaining shell is still in the node; the closed ones are not.
    const auto alive = hl::apptest::nodeSessions(socketPath());
    EXPECT_EQ(alive.size(), sessions.size());
    for (const auto& [pane, session] : sessions)
        EXPECT_NE(std::find(alive.begin(), alive.end(), session.toStdString()), alive.end());

    // A restart on the same preferences finds every tab and every shell.
    RunningApp run;
    auto& workspace = run.workspace();
    ASSERT_EQ(workspace.tabs().size(), 2u);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(workspace.tabs()[i]->id(), tabOrder[i]);
    EXPECT_EQ(workspace.activeWorkspaceID(), "project:alpha-id");
    EXPECT_EQ(run.app->catalog().selectedProjectID(), "alpha-id");
    EXPECT_EQ(workspace.selectedTab()->layout(), *savedLayout);
    // The renderers start their terminals once their documents are ready.
    ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Reconnected", 2); }))
        << paneStatuses(&run.window).join(", ").toStdString();
    waitForOutput(workspace.selectedTab());
    const auto* marked = workspace.selectedTab()->pane(markedID);
    ASSERT_NE(marked, nullptr);
    EXPECT_TRUE(rendererBytes(marked->controller()).contains("marker-42"))
        << "the history is replayed";
    saveScreenshot(&run.window, "06-restarted");
    click(waitFor(&run.window, "workspace.scratch"));
    EXPECT_EQ(workspace.activeWorkspaceID(), "scratch");
    ASSERT_TRUE(spinUntil([&] { return allPanesShow(&run.window, "Reconnected", 1); }))
        << paneStatuses(&run.window).join(", ").toStdString();
    for (auto* tab : workspace.tabs()) {
        for (auto* pane : tab->panes())
            EXPECT_EQ(pane->controller().sessionIDText(), sessions.at(pane->id()));
    }

    // Closing the window ends the application's event loop and closes no shell.
    QTimer::singleShot(0, &run.window, [&] { run.window.close(); });
    QTimer::singleShot(10s, qApp, [] { QApplication::exit(2); });
    EXPECT_EQ(QApplication::exec(), 0) << "the last window closing quits";
    EXPECT_EQ(hl::apptest::nodeSessions(socketPath()).size(), sessions.size());
}

TEST(ApplicationWindowTest, UnreadableSavedDataDisablesWhatWouldOverwriteItAndSaysWhy) {
    const auto preferences = hl::apptest::baseFolder() / "unreadable.db";
    const QString root = folderFor("delta");
    const QString gone = folderFor("epsilon");
    {
        hl::ProjectCatalog catalog(hl::Preferences::open(preferences));
        ASSERT_TRUE(catalog.add("delta", root, "delta-id"));
        ASSERT_TRUE(catalog.add("epsilon", gone, "epsilon-id"));
        hl::Preferences::open(preferences)
            ->set(hl::WorkspaceStore::storageKey, hl::PreferenceData{"not a workspace"});
    }
    std::filesystem::remove(gone.toStdString());

    auto app = std::make_unique<hl::HarborlatticeApp>(preferences);
    hl::MainWindow window(*app);
    window.show();
    ASSERT_FALSE(app->workspace().workspaceMutationsAreAllowed());
    auto* content = window.contentView();
    EXPECT_EQ(find<QLabel>(&window, "empty.title")->text(), "Choose a workspace");

    // Creating Scratch would save: its row is disabled while there is none.
    auto* scratch = waitFor(&window, "workspace.scratch");
    ASSERT_NE(scratch, nullptr);
    EXPECT_FALSE(scratch->isEnabled());
    EXPECT_EQ(scratch->toolTip(), "Create Scratch workspace");

    // A folder that has gone is shown in red; opening says why nothing opened.
    auto* goneRow = waitFor(&window, "workspace.project.epsilon-id");
    ASSERT_NE(goneRow, nullptr);
    auto* path = goneRow->findChild<QLabel*>("project.root");
    EXPECT_EQ(path->palette().color(path->foregroundRole()).name(), "#d7302a");
    click(goneRow);
    auto* error = find<QLabel>(&window, "sidebar.errorText");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->text(),
              "Saved workspace data is unreadable and was preserved. No project was opened.");
    EXPECT_NE(find(&window, "sidebar.startOver"), nullptr) << "a way out that keeps the bytes";
    saveScreenshot(&window, "07-unreadable");

    auto* menu = waitFor(&window, "project.actions.delta-id");
    ASSERT_NE(menu, nullptr);
    auto* rename = menu->findChild<QAction*>("project.rename");
    EXPECT_FALSE(rename->isEnabled());
    content->presentRename(app->catalog().projects()[0]);
    EXPECT_FALSE(content->renameDialog()->findChild<QPushButton*>("dialog.confirm")->isEnabled());
    EXPECT_EQ(content->renameDialog()->findChild<QLabel*>("dialog.message")->text(),
              "Saved workspace data is unreadable and was preserved. Resolve that problem before "
              "renaming this project.");
    content->renameDialog()->reject();

    menu->findChild<QAction*>("project.remove")->trigger();
    auto* remove = content->removeDialog();
    ASSERT_NE(remove, nullptr);
    EXPECT_FALSE(remove->findChild<QPushButton*>("dialog.confirm")->isEnabled());
    EXPECT_EQ(remove->findChild<QLabel*>("dialog.message")->text(),
              "Saved workspace data is unreadable and was preserved. Resolve that problem before "
              "removing delta.");
    click(remove->findChild<QPushButton*>("dialog.cancel"));
    ASSERT_TRUE(spinUntil([&] { return content->removeDialog() == nullptr; }));
    EXPECT_EQ(app->catalog().projects().size(), 2u);
    EXPECT_EQ(hl::Preferences::open(preferences)->data(hl::WorkspaceStore::storageKey)->bytes,
              "not a workspace")
        << "the unreadable data is preserved";
}

}  // namespace
