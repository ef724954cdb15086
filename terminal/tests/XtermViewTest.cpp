// The terminal document as text: the exact frame around the assets, and assets
// put in as they are. What the script does is tested in a browser
// (web/tests/document.test.mjs).
#include <gtest/gtest.h>

#include "XtermView.h"

using hl::XtermView;

namespace {

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

}  // namespace
