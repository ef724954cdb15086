// The menu commands of the application and their keys. A command has one key
// per platform: macOS keeps the Command-key chords, Linux uses the chords of
// Linux terminals, which never take a key a shell needs. Help texts that show a
// key render it here, for the platform the application runs on.
#pragma once

#include <QKeySequence>
#include <QString>

#include <array>

namespace hl {

enum class Command {
    NewTerminal,
    NewScratchTerminal,
    SplitRight,
    SplitDown,
    SelectPreviousPane,
    SelectNextPane,
    SelectPreviousTab,
    SelectNextTab,
    SelectPreviousWorkspace,
    SelectNextWorkspace,
    FindNext,
    FindPrevious,
    CloseSelectedPane,
};

inline constexpr std::array<Command, 13> allCommands = {
    Command::NewTerminal,         Command::NewScratchTerminal, Command::SplitRight,
    Command::SplitDown,           Command::SelectPreviousPane, Command::SelectNextPane,
    Command::SelectPreviousTab,   Command::SelectNextTab,      Command::SelectPreviousWorkspace,
    Command::SelectNextWorkspace, Command::FindNext,           Command::FindPrevious,
    Command::CloseSelectedPane,
};

enum class KeyPlatform { MacOS, Linux };

// The platform this build runs on.
KeyPlatform runningKeyPlatform();

// A key with the modifiers named as on a Mac keyboard; on Linux `control` is
// Ctrl and `option` is Alt, and `command` is never used.
struct KeyChord {
    Qt::Key key;
    bool control = false;
    bool option = false;
    bool shift = false;
    bool command = false;
    bool operator==(const KeyChord&) const = default;
};

// The menu title, e.g. "Split Terminal Right".
QString commandTitle(Command command);
KeyChord commandKey(Command command, KeyPlatform platform = runningKeyPlatform());
// The chord as Qt matches it on that platform (on macOS Qt reads Ctrl as Command).
QKeySequence commandKeySequence(Command command, KeyPlatform platform = runningKeyPlatform());
// The key as a help text shows it: "⇧⌘G" on macOS, "Ctrl+Shift+H" on Linux.
QString commandKeyText(Command command, KeyPlatform platform = runningKeyPlatform());
// "text (key)", the help text of a control that runs a command.
QString helpTextWithKey(const QString& text, Command command,
                        KeyPlatform platform = runningKeyPlatform());

}  // namespace hl
