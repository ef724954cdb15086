// The terminal document: one HTML text with xterm.js, its addons, its style
// sheet and this system's script inline, so the web view loads nothing else.
// One document holds the terminals of several panes, each in a container of its
// own that the host places in CSS pixels; the page starts with none. The script
// defines `window.harborlattice` for the host:
//   open(id, rect)   rect = {left, top, width, height}: a new terminal there;
//                    an id already open is left as it is
//   place(id, rect)  moves and resizes it; the terminal fits its new size
//   close(id)        disposes of it and removes its container
//   terminal(id)     its interface (writeBase64, focus, blur, search,
//                    clearSearch, paste, selectAll, setFontSize), or undefined
//   moveKeyboard(number, after, id, operation)
//                    runs the terminal's "focus" or "blur" once the page has
//                    seen `after` key events (presses and releases) since it
//                    loaded, and then posts "keyboardMoved" (number)
// and posts "loaded" ('') once, when `window.harborlattice` is in place. Every
// terminal posts { pane: id, body } on "input", "resize", "openLink", "ready"
// (when it is set up), "title", "bell", "selection", "pastePrimary", "link"
// (the link under the pointer) and "searchResults", and nothing once closed.
// A terminal fits its container only while the container has a size, so a
// hidden one never shrinks the shell. Output written as history or a replay is
// never answered.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace hl {

namespace XtermConfiguration {

inline constexpr bool macOptionIsMeta = true;
inline constexpr bool screenReaderMode = false;

// One of the sixteen ANSI colours: its member name in the theme and its value.
struct AnsiColour {
    std::string_view name;
    std::string_view value;
};

inline constexpr std::array<AnsiColour, 16> ansiPalette{{
    {"black", "#000000"},
    {"red", "#cd0000"},
    {"green", "#00cd00"},
    {"yellow", "#cdcd00"},
    {"blue", "#0000ee"},
    {"magenta", "#cd00cd"},
    {"cyan", "#00cdcd"},
    {"white", "#e5e5e5"},
    {"brightBlack", "#7f7f7f"},
    {"brightRed", "#ff0000"},
    {"brightGreen", "#00ff00"},
    {"brightYellow", "#ffff00"},
    {"brightBlue", "#5c5cff"},
    {"brightMagenta", "#ff00ff"},
    {"brightCyan", "#00ffff"},
    {"brightWhite", "#ffffff"},
}};

// The light scheme's sixteen colours, readable on its near-white background.
inline constexpr std::array<AnsiColour, 16> lightPalette{{
    {"black", "#24292f"},
    {"red", "#cf222e"},
    {"green", "#116329"},
    {"yellow", "#7d4e00"},
    {"blue", "#0550ae"},
    {"magenta", "#8250df"},
    {"cyan", "#1b7c83"},
    {"white", "#6e7781"},
    {"brightBlack", "#57606a"},
    {"brightRed", "#a40e26"},
    {"brightGreen", "#1a7f37"},
    {"brightYellow", "#633c01"},
    {"brightBlue", "#218bff"},
    {"brightMagenta", "#a475f9"},
    {"brightCyan", "#3192aa"},
    {"brightWhite", "#8c959f"},
}};

// The theme as a script object literal: background, foreground, cursor and
// selection first, then the palette in order, every value in single quotes.
std::string theme();
// The same for the light scheme.
std::string lightTheme();

}  // namespace XtermConfiguration

// How every terminal looks and rings, as the document's setOptions takes it.
struct XtermLook {
    std::string fontFamily;  // empty: the document's own list
    int scrollback = 10000;
    std::string cursorStyle = "block";  // "block", "underline" or "bar"
    bool cursorBlink = true;
    bool dark = true;
    std::string bell = "visible";  // "visible", "sound" or "none"
    bool operator==(const XtermLook&) const = default;

    // The script object literal for window.harborlattice.setOptions.
    std::string script() const;
};

struct XtermView {
    // The whole document for the contents of the six assets, which are put in
    // as they are.
    static std::string html(std::string_view js, std::string_view fit, std::string_view links,
                            std::string_view search, std::string_view unicode,
                            std::string_view css);

    // The same document with the five scripts named by their asset names
    // (relative addresses, loaded in order from the document's own origin)
    // instead of written out: pages of one origin then share one copy of them.
    static std::string htmlNamingScripts(std::string_view css);
    // The asset names of the scripts, in the order the document runs them.
    static constexpr std::array<std::string_view, 5> scriptAssets{
        "xterm.js", "addon-fit.js", "addon-web-links.js", "addon-search.js", "addon-unicode11.js"};

    // The document's own script: defines `window.harborlattice` and posts "loaded".
    static std::string documentScript();

    // Follows the enhanced keyboard protocol's flags (one stack per screen buffer)
    // and gives Shift+Enter its enhanced encoding; expects `terminal` in scope
    // (it runs once for every terminal).
    static std::string_view enhancedKeyboardBridge();
};

}  // namespace hl
