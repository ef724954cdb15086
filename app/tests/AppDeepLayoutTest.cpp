// Closing panes through the real window in deep layouts, the way the keyboard
// and the mouse do it: a click into a terminal, then Ctrl+Shift+W from inside
// it. Hiding a closed pane's view moves the keyboard to another terminal while
// the close is still running; the saved model must stay whole at every step,
// and a restart must bring every tab back.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <QWebEngineView>

#include "AppTestSupport.h"
#include "PaneLayoutView.h"
#include "RunningApp.h"
#include "RuntimePaths.h"
#include "SavedWorkspace.h"
#include "TerminalPaneView.h"
#include "TerminalWorkspaceView.h"
#include "XtermWebView.h"

namespace {

using namespace std::chrono_literals;
using hl::apptest::spinFor;
using hl::apptest::spinUntil;

// The saved tabs as the next start will read them; fails the test when a
// saved tab's panes are not exactly its layout's leaves.
std::vector<hl::SavedTab> savedTabs() {
    auto stored = hl::Preferences::open(hl::RuntimePaths::preferencesFile())
                      ->data(hl::WorkspaceStore::storageKey);
    if (!stored) return {};
    const auto saved = hl::SavedWorkspace::decode(QByteArray::fromStdString(stored->bytes));
    for (const auto& tab : saved.tabs) {
        QList<QUuid> panes;
        for (const auto& pane : tab.panes)
            panes << pane.id;
        EXPECT_TRUE(hl::WorkspaceStore::paneIdentitySetIsExact(panes, tab.layout.paneIDs()))
            << panes.size() << " panes, " << tab.layout.paneIDs().size() << " leaves";
    }
    return saved.tabs;
}

// Presses the mouse inside the pane's terminal, where a user clicks: on the
// tab's page, at the middle of the place the pane leaves open for it.
void clickInto(hl::PaneLayoutView* layout, hl::TerminalPaneView* view) {
    ASSERT_NE(view, nullptr);
    QWebEngineView* web = layout->document()->webView();
    QWidget* target = web->focusProxy() ? web->focusProxy() : web;
    auto* place = view->findChild<QWidget*>("pane.terminal");
    ASSERT_NE(place, nullptr);
    QTest::mouseClick(target, Qt::LeftButton, {},
                      target->mapFromGlobal(place->mapToGlobal(place->rect().center())));
}

TEST(DeepLayoutTest, ClosingEveryPositionKeepsTheSavedModelWholeAcrossRestarts) {
    const auto root = hl::apptest::baseFolder() / "projects" / "deep";
    std::filesystem::create_directories(root);
    const QList<int> closeAt = {0, 6, 3, 1, 3, 0, 1};  // first, last, middle, nested, …
    QUuid tabID;
    QList<QUuid> remaining;
    {
        hl::apptest::RunningApp run;
        auto& workspace = run.workspace();
        ASSERT_TRUE(
            run.content()->addProject("deep", QString::fromStdString(root.string()), "deep-id"));
        ASSERT_TRUE(spinUntil([&] { return workspace.selectedTab() != nullptr; }));
        // Eight panes on both axes: split the newest right, then down, in turn.
        for (int i = 0; i < 7; ++i) {
            workspace.split(i % 2 == 0);
            if (i == 3) workspace.selectAdjacentPane(-3);
        }
        hl::TerminalTab* tab = workspace.selectedTab();
        ASSERT_EQ(tab->paneCount(), 8);
        tabID = tab->id();
        auto* layoutView = run.content()->workspaceView()->paneLayoutView();
        ASSERT_TRUE(spinUntil(
            [&] {
                for (auto* pane : tab->panes()) {
                    if (!pane->sessionID()) return false;
                }
                return true;
            },
            60s));

        for (int position : closeAt) {
            const QUuid target = tab->layout().paneIDs().at(position);
            clickInto(layoutView, layoutView->paneView(target));
            ASSERT_EQ(tab->selectedPaneID(), target) << "a click in a terminal selects its pane";
            QWidget* keys = QApplication::focusWidget() ? QApplication::focusWidget() : &run.window;
            QTest::keyClick(keys, Qt::Key_W, Qt::ControlModifier | Qt::ShiftModifier);
            spinFor(150ms);  // focus moves, views are hidden and re-parented
            ASSERT_EQ(tab->pane(target), nullptr);
            ASSERT_TRUE(workspace.storageIsWritable());
            const auto saved = savedTabs();
            ASSERT_EQ(saved.size(), 1u);
            EXPECT_EQ(saved[0].panes.size(), static_cast<std::size_t>(tab->paneCount()));
        }
        remaining = tab->layout().paneIDs();
        ASSERT_EQ(remaining.size(), 1);
        ASSERT_TRUE(spinUntil([&] { return workspace.closeLedger().pending().empty(); }, 20s));
    }

    // The next start opens the tab whole, writable, with the last pane's shell.
    auto app = std::make_unique<hl::HarborlatticeApp>();
    auto& workspace = app->workspace();
    EXPECT_TRUE(workspace.storageIsWritable());
    EXPECT_FALSE(workspace.errorMessage()) << workspace.errorMessageText().toStdString();
    ASSERT_EQ(workspace.tabs().size(), 1u);
    EXPECT_EQ(workspace.tabs()[0]->id(), tabID);
    EXPECT_EQ(workspace.tabs()[0]->layout().paneIDs(), remaining);
}

}  // namespace
