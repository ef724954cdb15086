// terminal_document_dump: prints the terminal document composed from the assets
// that this executable finds, for the browser test to load.
#include <cstdio>
#include <iostream>
#include <system_error>

#include "TerminalAssetLocator.h"
#include "XtermView.h"

int main() {
    try {
        const hl::TerminalAssetLocator locator;
        const std::string document = hl::XtermView::html(
            locator.contents("xterm.js"), locator.contents("addon-fit.js"),
            locator.contents("addon-web-links.js"), locator.contents("addon-search.js"),
            locator.contents("addon-unicode11.js"), locator.contents("xterm.css"));
        std::fwrite(document.data(), 1, document.size(), stdout);
        return std::fflush(stdout) == 0 ? 0 : 1;
    } catch (const std::system_error& error) {
        std::cerr << "terminal_document_dump: assets unavailable: " << error.what() << '\n';
        return 1;
    }
}
