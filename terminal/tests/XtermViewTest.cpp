// The terminal document as text: the assets put in as they are, in the order
// the document runs them, and its own script after them. What the script does
// is tested in a browser (web/tests/document.test.mjs).
#include <gtest/gtest.h>

#include <string>

#include "XtermView.h"

using hl::XtermView;

namespace {

// Where `part` starts in `text` at or after `from`, failing the test when absent.
std::size_t positionOf(const std::string& text, const std::string& part, std::size_t from) {
    const std::size_t at = text.find(part, from);
    EXPECT_NE(at, std::string::npos) << "missing after " << from << ": " << part;
    return at == std::string::npos ? text.size() : at;
}

TEST(XtermViewTest, BothDocumentsRunTheAssetsUnalteredInOrderAndTheirOwnScriptLast) {
    // Contents that an escaping or templating step would alter.
    const std::string js = "var a = \"</div>\" + '\\n' + `${b}`;\r\n// \xC2\xB7 \xE2\x80\xA6";
    const std::string fit = std::string("fit\0with a NUL", 14);
    const std::string links = "%s %d $& \\u0000";
    const std::string search = "";
    const std::string unicode =
        "</scr"
        "ipt-like";
    const std::string css = ".xterm { content: \"\\2026\"; }\n";
    const std::string ownScript = XtermView::documentScript() + "</script></body></html>";

    const std::string withContents = XtermView::html(js, fit, links, search, unicode, css);
    const std::string naming = XtermView::htmlNamingScripts(css);
    for (const std::string* document : {&withContents, &naming}) {
        std::size_t at = positionOf(*document, "<style>\n" + css, 0);
        at = positionOf(*document, "</style></head><body>", at);
        if (document == &withContents) {
            for (const std::string* asset : {&js, &fit, &links, &search, &unicode})
                at = positionOf(*document, "<script>" + *asset + "</script>", at);
        } else {
            for (const std::string_view name : XtermView::scriptAssets)
                at = positionOf(*document, "<script src=\"" + std::string(name) + "\"></script>",
                                at);
        }
        ASSERT_GE(document->size(), ownScript.size());
        EXPECT_GT(document->size() - ownScript.size(), at);
        EXPECT_EQ(document->substr(document->size() - ownScript.size()), ownScript);
        EXPECT_EQ(document->find("<script", at + 1), document->rfind("<script"))
            << "one script element after the assets, the document's own";
    }
}

}  // namespace
