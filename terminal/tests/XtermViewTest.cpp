// The terminal document as text: the exact frame around the assets, assets put
// in as they are, the theme, the order of the document's own script, and the
// real assets fitting inside their elements. What the script does is tested in
// a browser (web/tests/document.test.mjs).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "TerminalAssetLocator.h"
#include "XtermView.h"

using hl::TerminalAssetLocator;
using hl::XtermView;

namespace {

// Offsets of `needles` in `text`, each searched after the previous one.
std::vector<std::size_t> positionsInOrder(const std::string& text,
                                          std::initializer_list<std::string_view> needles) {
    std::vector<std::size_t> positions;
    std::size_t from = 0;
    for (auto needle : needles) {
        const std::size_t at = text.find(needle, from);
        positions.push_back(at);
        if (at == std::string::npos) break;
        from = at + needle.size();
    }
    return positions;
}

TEST(XtermViewTest, TheDocumentFramesTheAssetsExactlyAndLeavesThemAsTheyAre) {
    // Contents that an escaping or templating step would alter.
    const std::string js = "var a = \"</div>\" + '\\n' + `${b}`;\r\n// \xC2\xB7 \xE2\x80\xA6";
    const std::string fit = std::string("fit\0with a NUL", 14);
    const std::string links = "%s %d $& \\u0000";
    const std::string search = "";
    const std::string css = ".xterm { content: \"\\2026\"; }\n";

    const std::string expected =
        "<!doctype html><html><head><meta charset=\"utf-8\"><style>\n" + css +
        "\nhtml,body,#terminal{width:100%;height:100%;margin:0;overflow:hidden;background:#10131a}"
        "\n</style></head><body><div id=\"terminal\"></div>\n<script>" +
        js + "</script><script>" + fit + "</script><script>" + links + "</script><script>" +
        search + "</script>\n<script>\n" + XtermView::documentScript() + "</script></body></html>";
    EXPECT_EQ(XtermView::html(js, fit, links, search, css), expected);
}

TEST(XtermViewTest, TheThemeListsItsFourMembersThenThePaletteInOrder) {
    EXPECT_EQ(hl::XtermConfiguration::theme(),
              "{ background: '#10131a', foreground: '#e6edf3', cursor: '#7ee787', "
              "selectionBackground: '#264f78', black: '#000000', red: '#cd0000', "
              "green: '#00cd00', yellow: '#cdcd00', blue: '#0000ee', magenta: '#cd00cd', "
              "cyan: '#00cdcd', white: '#e5e5e5', brightBlack: '#7f7f7f', "
              "brightRed: '#ff0000', brightGreen: '#00ff00', brightYellow: '#ffff00', "
              "brightBlue: '#5c5cff', brightMagenta: '#ff00ff', brightCyan: '#00ffff', "
              "brightWhite: '#ffffff' }");
}

TEST(XtermViewTest, TheScriptRunsItsStepsInOrderAndPostsReadyLast) {
    const std::string script = XtermView::documentScript();
    const auto options = positionsInOrder(
        script,
        {"new Terminal({", "cursorBlink: true,", "allowProposedApi: false,", "scrollback: 10000,",
         "fontFamily: \"SFMono-Regular, Menlo, 'DejaVu Sans Mono', monospace, 'Noto Color "
         "Emoji'\",",
         "fontSize: 13,", "macOptionIsMeta: true,", "screenReaderMode: false,",
         "theme: " + hl::XtermConfiguration::theme(), "});"});
    EXPECT_EQ(std::count(options.begin(), options.end(), std::string::npos), 0) << script;

    const auto steps = positionsInOrder(
        script,
        {"new FitAddon.FitAddon()", "new SearchAddon.SearchAddon()",
         "new WebLinksAddon.WebLinksAddon(", "terminal.open(document.getElementById('terminal'))",
         "'Terminal output'", "'Terminal input'", "terminal.onData(", "terminal.onResize(",
         XtermView::enhancedKeyboardBridge(), "new ResizeObserver(", "fitAddon.fit();",
         "window.harborlattice = {", "window.webkit.messageHandlers.ready.postMessage('');\n"});
    EXPECT_EQ(std::count(steps.begin(), steps.end(), std::string::npos), 0) << script;
    EXPECT_EQ(steps.back() +
                  std::string_view("window.webkit.messageHandlers.ready.postMessage('');\n").size(),
              script.size());
}

TEST(XtermViewTest, TheInstalledAssetsNeverCloseTheirElementEarly) {
    const TerminalAssetLocator locator(
        TerminalAssetLocator::resourceDirectory(HARBORLATTICE_BUILD_DIR));
    const std::string js = locator.contents("xterm.js"), fit = locator.contents("addon-fit.js"),
                      links = locator.contents("addon-web-links.js"),
                      search = locator.contents("addon-search.js"),
                      css = locator.contents("xterm.css");
    // Assets go in as they are, so none may close its element early.
    for (const std::string* asset : {&js, &fit, &links, &search})
        EXPECT_EQ(asset->find("</script"), std::string::npos);
    EXPECT_EQ(css.find("</style"), std::string::npos);
}

}  // namespace
