// The window's rules that need no display: the divider drag and split lengths,
// the keys of the commands and their help texts, and the state-dependent texts
// of the sidebar and the project dialogs.
#include <gtest/gtest.h>

#include <QImage>

#include <set>

#include "CommandKeys.h"
#include "ContentTexts.h"
#include "DividerDrag.h"
#include "SymbolIcon.h"

namespace {

using hl::Command;
using hl::DividerDrag;
using hl::KeyPlatform;

TEST(DividerDragTest, FollowsThePointerFromTheRatioAtThePressWithoutAccumulating) {
    DividerDrag drag;
    EXPECT_DOUBLE_EQ(drag.ratioInForce(0.5), 0.5);
    EXPECT_DOUBLE_EQ(drag.change(0.5, 100, 1000), 0.6);
    // The store echoes 0.6 back; the next step still counts from the press.
    EXPECT_DOUBLE_EQ(drag.change(0.6, 200, 1000), 0.7);
    EXPECT_DOUBLE_EQ(*drag.originRatio(), 0.5);
    EXPECT_DOUBLE_EQ(drag.ratioInForce(0.2), 0.7) << "the draft is drawn, not the stored ratio";
    drag.end();
    EXPECT_FALSE(drag.originRatio());
    EXPECT_FALSE(drag.draftRatio());
    EXPECT_DOUBLE_EQ(drag.ratioInForce(0.7), 0.7);
    // A new drag starts from the ratio in force at its press.
    EXPECT_DOUBLE_EQ(drag.change(0.7, -100, 1000), 0.6);
}

TEST(DividerDragTest, StopsAtEitherLimitAndMovesAgainOnlyWhenThePointerReturns) {
    DividerDrag drag;
    EXPECT_DOUBLE_EQ(drag.change(0.5, 1000, 1000), 0.9);
    EXPECT_DOUBLE_EQ(drag.change(0.9, 450, 1000), 0.9) << "still past the end";
    EXPECT_NEAR(drag.change(0.9, 350, 1000), 0.85, 1e-12);
    EXPECT_DOUBLE_EQ(drag.change(0.85, -3000, 1000), 0.1);
    EXPECT_DOUBLE_EQ(drag.change(0.1, -450, 1000), 0.1);
    EXPECT_NEAR(drag.change(0.1, -300, 1000), 0.2, 1e-12);

    // An extent below one divides by one.
    DividerDrag small;
    EXPECT_NEAR(small.change(0.5, 0.25, 0.4), 0.75, 1e-12);
    DividerDrag none;
    EXPECT_NEAR(none.change(0.5, -0.25, 0), 0.25, 1e-12);
}

TEST(DividerDragTest, SplitLengthsGiveTheDividerSixPointsAndTheFirstChildNeverLessThanZero) {
    const auto half = hl::splitLengths(1000, 0.5);
    EXPECT_DOUBLE_EQ(half.first, 497);
    EXPECT_DOUBLE_EQ(half.second, 497);
    const auto wide = hl::splitLengths(800, 0.9);
    EXPECT_DOUBLE_EQ(wide.first, 717);
    EXPECT_DOUBLE_EQ(wide.second, 77);
    // length × ratio below 3 points: the first child gets nothing.
    const auto narrow = hl::splitLengths(5, 0.5);
    EXPECT_DOUBLE_EQ(narrow.first, 0);
    EXPECT_DOUBLE_EQ(narrow.second, 0);
    const auto exact = hl::splitLengths(30, 0.1);
    EXPECT_DOUBLE_EQ(exact.first, 0);
    EXPECT_DOUBLE_EQ(exact.second, 24);
}

TEST(CommandKeysTest, LinuxKeysAreThoseOfLinuxTerminals) {
    const std::vector<std::pair<Command, QString>> expected = {
        {Command::NewTerminal, "Ctrl+Shift+T"},
        {Command::NewScratchTerminal, "Ctrl+Shift+N"},
        {Command::SplitRight, "Ctrl+Shift+E"},
        {Command::SplitDown, "Ctrl+Shift+O"},
        {Command::SelectPreviousPane, "Alt+Left"},
        {Command::SelectNextPane, "Alt+Right"},
        {Command::SelectPreviousTab, "Ctrl+PageUp"},
        {Command::SelectNextTab, "Ctrl+PageDown"},
        {Command::SelectPreviousWorkspace, "Ctrl+Shift+PageUp"},
        {Command::SelectNextWorkspace, "Ctrl+Shift+PageDown"},
        {Command::FindNext, "Ctrl+Shift+G"},
        {Command::FindPrevious, "Ctrl+Shift+H"},
        {Command::CloseSelectedPane, "Ctrl+Shift+W"},
    };
    ASSERT_EQ(expected.size(), hl::allCommands.size());
    std::set<QString> distinct;
    for (const auto& [command, text] : expected) {
        EXPECT_EQ(hl::commandKeyText(command, KeyPlatform::Linux), text);
        // No Linux key has a Command modifier, which neither text nor sequence would show.
        EXPECT_FALSE(hl::commandKey(command, KeyPlatform::Linux).command) << text.toStdString();
        // Qt reads the same chord from the text it would show.
        QString portable = text;
        portable.replace("PageUp", "PgUp").replace("PageDown", "PgDown");
        EXPECT_EQ(hl::commandKeySequence(command, KeyPlatform::Linux), QKeySequence(portable))
            << text.toStdString();
        distinct.insert(text);
    }
    EXPECT_EQ(distinct.size(), expected.size());
}

TEST(CommandKeysTest, MacKeysAreTheCommandChordsAndMapCommandToQtControl) {
    EXPECT_EQ(hl::commandKeyText(Command::SelectPreviousPane, KeyPlatform::MacOS), "⌥⌘←");
    EXPECT_EQ(hl::commandKeyText(Command::SelectNextWorkspace, KeyPlatform::MacOS), "⌃⌘→");

    // Panes and workspaces differ only by Option against Control.
    auto pane = hl::commandKey(Command::SelectPreviousPane, KeyPlatform::MacOS);
    auto space = hl::commandKey(Command::SelectPreviousWorkspace, KeyPlatform::MacOS);
    EXPECT_TRUE(pane.option && !pane.control);
    pane.option = false;
    pane.control = true;
    EXPECT_EQ(pane, space);

    EXPECT_EQ(hl::commandKeySequence(Command::NewTerminal, KeyPlatform::MacOS),
              QKeySequence(Qt::CTRL | Qt::Key_T));
    EXPECT_EQ(hl::commandKeySequence(Command::SelectNextWorkspace, KeyPlatform::MacOS),
              QKeySequence(Qt::META | Qt::CTRL | Qt::Key_Right));
    EXPECT_EQ(hl::commandKeySequence(Command::SelectNextPane, KeyPlatform::MacOS),
              QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_Right));
}

TEST(ContentTextsTest, TheScratchRowCountsItsTabsWithTheRightWord) {
    // Without a Scratch workspace, and with one tab: shown in the window (AppWindowTest).
    hl::WorkspaceChoice scratch{"scratch", "Scratch", std::nullopt, 0};
    EXPECT_EQ(hl::scratchRowHelp(scratch), "Switch to Scratch workspace");
    EXPECT_EQ(hl::scratchRowSubtitle(scratch), "0 tabs · separate from projects");
    scratch.tabCount = 3;
    EXPECT_EQ(hl::scratchRowSubtitle(scratch), "3 tabs · separate from projects");
}

}  // namespace

TEST(SymbolIconTest, EverySyncSymbolIsDrawnAndEachIsItsOwn) {
    std::set<QByteArray> drawings;
    for (const char* name : {"icloud", "checkmark.icloud", "arrow.triangle.2.circlepath.icloud",
                             "icloud.slash", "folder.badge.questionmark"}) {
        const QImage image = hl::symbolPixmap(name, 16, Qt::black).toImage();
        int inked = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x)
                inked += qAlpha(image.pixel(x, y)) > 128 ? 1 : 0;
        }
        EXPECT_GT(inked, 20) << name;
        drawings.insert(
            QByteArray(reinterpret_cast<const char*>(image.constBits()), image.sizeInBytes()));
    }
    EXPECT_EQ(drawings.size(), 5u);
}
