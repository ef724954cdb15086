// TerminalLook: the terminal settings as every terminal page takes them.
#pragma once

#include "TerminalSettings.h"
#include "XtermView.h"

namespace hl {

// The page's form of `settings`; "follow the desktop" reads the desktop's
// palette as it is now.
XtermLook terminalLook(const TerminalSettings& settings);

// Applies `settings` to every terminal page, now and as pages load; the font
// size too unless `keepFontSize` (a zoom kept from before wins at start).
void applyTerminalSettings(const TerminalSettings& settings, bool keepFontSize);

}  // namespace hl
