// TerminalLook: the terminal settings as every terminal page takes them.
#include "TerminalLook.h"

#include <QGuiApplication>
#include <QPalette>

#include "XtermWebView.h"

namespace hl {

XtermLook terminalLook(const TerminalSettings& settings) {
    XtermLook look;
    look.fontFamily = settings.fontFamily.toStdString();
    look.scrollback = settings.scrollbackLines;
    switch (settings.cursorShape) {
        case TerminalSettings::CursorShape::Block:
            look.cursorStyle = "block";
            break;
        case TerminalSettings::CursorShape::Underline:
            look.cursorStyle = "underline";
            break;
        case TerminalSettings::CursorShape::Bar:
            look.cursorStyle = "bar";
            break;
    }
    look.cursorBlink = settings.cursorBlinks;
    switch (settings.colorScheme) {
        case TerminalSettings::ColorScheme::Dark:
            look.dark = true;
            break;
        case TerminalSettings::ColorScheme::Light:
            look.dark = false;
            break;
        case TerminalSettings::ColorScheme::FollowDesktop:
            look.dark = QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
            break;
    }
    switch (settings.bell) {
        case TerminalSettings::Bell::Visible:
            look.bell = "visible";
            break;
        case TerminalSettings::Bell::Sound:
            look.bell = "sound";
            break;
        case TerminalSettings::Bell::None:
            look.bell = "none";
            break;
    }
    return look;
}

void applyTerminalSettings(const TerminalSettings& settings, bool keepFontSize) {
    XtermWebView::setLookForAll(terminalLook(settings), settings.copyOnSelect);
    if (!keepFontSize && XtermWebView::fontSize() != settings.fontSize)
        XtermWebView::setFontSizeForAll(settings.fontSize);
}

}  // namespace hl
