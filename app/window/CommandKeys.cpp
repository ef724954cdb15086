// Keys of the menu commands on each platform, and their rendering in help texts.
#include "CommandKeys.h"

#include <QStringList>

#include <stdexcept>

namespace hl {

namespace {

KeyChord macKey(Command command) {
    switch (command) {
        case Command::NewTerminal:
            return {Qt::Key_T, false, false, false, true};
        case Command::NewScratchTerminal:
            return {Qt::Key_T, false, false, true, true};
        case Command::SplitRight:
            return {Qt::Key_D, false, false, false, true};
        case Command::SplitDown:
            return {Qt::Key_D, false, false, true, true};
        case Command::SelectPreviousPane:
            return {Qt::Key_Left, false, true, false, true};
        case Command::SelectNextPane:
            return {Qt::Key_Right, false, true, false, true};
        case Command::SelectPreviousTab:
            return {Qt::Key_BracketLeft, false, false, true, true};
        case Command::SelectNextTab:
            return {Qt::Key_BracketRight, false, false, true, true};
        case Command::SelectPreviousWorkspace:
            return {Qt::Key_Left, true, false, false, true};
        case Command::SelectNextWorkspace:
            return {Qt::Key_Right, true, false, false, true};
        case Command::FindNext:
            return {Qt::Key_G, false, false, false, true};
        case Command::FindPrevious:
            return {Qt::Key_G, false, false, true, true};
        case Command::CloseSelectedPane:
            return {Qt::Key_W, false, false, false, true};
    }
    throw std::logic_error("unknown command");
}

KeyChord linuxKey(Command command) {
    switch (command) {
        case Command::NewTerminal:
            return {Qt::Key_T, true, false, true};
        case Command::NewScratchTerminal:
            return {Qt::Key_N, true, false, true};
        case Command::SplitRight:
            return {Qt::Key_E, true, false, true};
        case Command::SplitDown:
            return {Qt::Key_O, true, false, true};
        case Command::SelectPreviousPane:
            return {Qt::Key_Left, false, true, false};
        case Command::SelectNextPane:
            return {Qt::Key_Right, false, true, false};
        case Command::SelectPreviousTab:
            return {Qt::Key_PageUp, true, false, false};
        case Command::SelectNextTab:
            return {Qt::Key_PageDown, true, false, false};
        case Command::SelectPreviousWorkspace:
            return {Qt::Key_PageUp, true, false, true};
        case Command::SelectNextWorkspace:
            return {Qt::Key_PageDown, true, false, true};
        case Command::FindNext:
            return {Qt::Key_G, true, false, true};
        case Command::FindPrevious:
            return {Qt::Key_H, true, false, true};
        case Command::CloseSelectedPane:
            return {Qt::Key_W, true, false, true};
    }
    throw std::logic_error("unknown command");
}

// The key's own name, without modifiers.
QString keyName(Qt::Key key, KeyPlatform platform) {
    const bool mac = platform == KeyPlatform::MacOS;
    switch (key) {
        case Qt::Key_Left:
            return mac ? QStringLiteral("←") : QStringLiteral("Left");
        case Qt::Key_Right:
            return mac ? QStringLiteral("→") : QStringLiteral("Right");
        case Qt::Key_PageUp:
            return QStringLiteral("PageUp");
        case Qt::Key_PageDown:
            return QStringLiteral("PageDown");
        case Qt::Key_BracketLeft:
            return QStringLiteral("[");
        case Qt::Key_BracketRight:
            return QStringLiteral("]");
        default:
            return QKeySequence(key).toString(QKeySequence::PortableText);
    }
}

}  // namespace

KeyPlatform runningKeyPlatform() {
#ifdef Q_OS_MACOS
    return KeyPlatform::MacOS;
#else
    return KeyPlatform::Linux;
#endif
}

QString commandTitle(Command command) {
    switch (command) {
        case Command::NewTerminal:
            return QStringLiteral("New Terminal in Active Workspace");
        case Command::NewScratchTerminal:
            return QStringLiteral("New Scratch Terminal");
        case Command::SplitRight:
            return QStringLiteral("Split Terminal Right");
        case Command::SplitDown:
            return QStringLiteral("Split Terminal Down");
        case Command::SelectPreviousPane:
            return QStringLiteral("Select Previous Pane");
        case Command::SelectNextPane:
            return QStringLiteral("Select Next Pane");
        case Command::SelectPreviousTab:
            return QStringLiteral("Select Previous Tab");
        case Command::SelectNextTab:
            return QStringLiteral("Select Next Tab");
        case Command::SelectPreviousWorkspace:
            return QStringLiteral("Select Previous Workspace");
        case Command::SelectNextWorkspace:
            return QStringLiteral("Select Next Workspace");
        case Command::FindNext:
            return QStringLiteral("Find Next");
        case Command::FindPrevious:
            return QStringLiteral("Find Previous");
        case Command::CloseSelectedPane:
            return QStringLiteral("Close Selected Pane");
    }
    throw std::logic_error("unknown command");
}

KeyChord commandKey(Command command, KeyPlatform platform) {
    return platform == KeyPlatform::MacOS ? macKey(command) : linuxKey(command);
}

QKeySequence commandKeySequence(Command command, KeyPlatform platform) {
    const KeyChord chord = commandKey(command, platform);
    Qt::KeyboardModifiers modifiers;
    if (platform == KeyPlatform::MacOS) {
        if (chord.command) modifiers |= Qt::ControlModifier;
        if (chord.control) modifiers |= Qt::MetaModifier;
    } else if (chord.control) {
        modifiers |= Qt::ControlModifier;
    }
    if (chord.option) modifiers |= Qt::AltModifier;
    if (chord.shift) modifiers |= Qt::ShiftModifier;
    return QKeySequence(QKeyCombination(modifiers, chord.key));
}

QString commandKeyText(Command command, KeyPlatform platform) {
    const KeyChord chord = commandKey(command, platform);
    const QString key = keyName(chord.key, platform);
    if (platform == KeyPlatform::MacOS) {
        QString text;
        if (chord.control) text += QStringLiteral("⌃");
        if (chord.option) text += QStringLiteral("⌥");
        if (chord.shift) text += QStringLiteral("⇧");
        if (chord.command) text += QStringLiteral("⌘");
        return text + key;
    }
    QStringList parts;
    if (chord.control) parts << QStringLiteral("Ctrl");
    if (chord.option) parts << QStringLiteral("Alt");
    if (chord.shift) parts << QStringLiteral("Shift");
    parts << key;
    return parts.join(QLatin1Char('+'));
}

QString helpTextWithKey(const QString& text, Command command, KeyPlatform platform) {
    return text + QStringLiteral(" (") + commandKeyText(command, platform) + QStringLiteral(")");
}

}  // namespace hl
