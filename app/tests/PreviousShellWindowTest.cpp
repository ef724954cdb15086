// A shell that left its pane's folder, across a restart of the real window with
// the real node: the pane gets a replacement, the old shell keeps running and is
// offered in the pane's menu, reattaching it swaps it back in with its history,
// and closing the pane closes both.
#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>

#include <algorithm>

#include "AppTestSupport.h"
#include "RunningApp.h"
#include "XtermWebView.h"

namespace {

using namespace std::chrono_literals;
using hl::apptest::RunningApp;
using hl::apptest::spinFor;
using hl::apptest::spinUntil;

bool nodeHas(const std::string& session) {
    const auto alive = hl::apptest::nodeSessions(hl::apptest::socketPath());
    return std::find(alive.begin(), alive.end(), session) != alive.end();
}

hl::TerminalPane* selectedPane(RunningApp& run) {
    auto* tab = run.workspace().selectedTab();
    return tab ? tab->pane(*tab->selectedPaneID()) : nullptr;
}

TEST(PreviousShellWindowTest, AShellThatLeftItsFolderIsOfferedNeverEnded) {
    std::string left;
    {
        RunningApp run;
        run.workspace().createScratchTerminal();
        auto* pane = selectedPane(run);
        ASSERT_NE(pane, nullptr);
        auto& controller = pane->controller();
        ASSERT_TRUE(spinUntil([&] { return controller.isConnected(); }, 30s));
        controller.terminalSurfaceDidReceiveInput("cd /tmp && echo left-$((40+2))\n");
        ASSERT_TRUE(spinUntil(
            [&] { return hl::apptest::rendererBytes(controller).contains("left-42"); }, 20s));
        left = *controller.sessionID();
    }

    RunningApp run;
    auto* pane = selectedPane(run);
    ASSERT_NE(pane, nullptr);
    auto& controller = pane->controller();
    ASSERT_TRUE(spinUntil([&] { return controller.isConnected(); }, 30s))
        << controller.status().toStdString();
    ASSERT_NE(controller.sessionID(), left) << "a shell in /tmp is not the pane's shell";
    const std::string replacement = *controller.sessionID();
    EXPECT_EQ(controller.status(), "Replacement connected · previous shell still runs in /tmp");
    // Past the start-up sweep: the shell that left is kept, and so saved.
    spinFor(5s);
    EXPECT_TRUE(nodeHas(left));
    ASSERT_EQ(pane->previousShells().size(), 1u);
    EXPECT_EQ(pane->previousShells().front().sessionID.toStdString(), left);

    auto* view = run.window.findChild<hl::XtermWebView*>();
    ASSERT_NE(view, nullptr);
    std::unique_ptr<QMenu> menu(view->contextMenu(view->rect().center()));
    ASSERT_NE(menu, nullptr);
    auto* reattach = menu->findChild<QAction*>("terminal.reattachPrevious");
    ASSERT_NE(reattach, nullptr);
    EXPECT_EQ(reattach->text(), "Reattach Previous Shell (now in /tmp)");
    EXPECT_NE(menu->findChild<QAction*>("terminal.closePrevious"), nullptr);
    reattach->trigger();
    ASSERT_TRUE(spinUntil([&] { return controller.sessionID() == left; }, 20s));
    EXPECT_EQ(controller.status(), "Reconnected");
    EXPECT_TRUE(hl::apptest::rendererBytes(controller).contains("left-42"))
        << "its history came back";
    // The swap ended nothing: the replacement is now the previous shell.
    ASSERT_EQ(controller.previousShells().size(), 1u);
    EXPECT_EQ(controller.previousShells().front().id, replacement);
    EXPECT_EQ(pane->sessionID()->toStdString(), left);

    // Closing the pane closes both shells.
    run.workspace().closeSelectedPane();
    EXPECT_TRUE(spinUntil([&] { return !nodeHas(left) && !nodeHas(replacement); }, 20s));
}

}  // namespace
