// The terminal renderer for real: the composed document in Qt WebEngine with
// its message-handler bridge, a controller on a real node, typed keys reaching
// the shell and its output reaching the page; links and navigations refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTest>
#include <QWebEnginePage>
#include <QWebEngineView>

#include "NodeHarness.h"
#include "TerminalDocumentScheme.h"
#include "XtermWebView.h"

using namespace std::chrono_literals;

namespace {

bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 30s) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// Runs a script in the page and waits for its result.
QVariant evaluate(QWebEngineView* view, const QString& script) {
    QVariant result;
    bool done = false;
    view->page()->runJavaScript(script, [&](const QVariant& value) {
        result = value;
        done = true;
    });
    spinUntil([&] { return done; }, 10s);
    return result;
}

std::string history(const hl::TerminalController& controller) {
    QByteArray bytes;
    for (const auto& chunk : controller.rendererHistory()) {
        bytes += QByteArray::fromBase64(QByteArray::fromStdString(chunk));
    }
    return bytes.toStdString();
}

TEST(XtermWebViewTest, KeysReachTheShellAndItsOutputReachesThePage) {
    hl::node::testing::NodeHarness node;
    hl::TerminalControllerHooks hooks;
    hooks.ensureNodeRunning = [] {};
    hl::TerminalController controller(
        std::nullopt, node.folder(), false, true, true, {},
        QStringLiteral("Working directory unavailable · focus to retry"),
        QStringLiteral("Saved workspace data is unsafe · new session blocked"),
        std::make_shared<hl::UnixSocketClient>(node.socketPath()), hooks);
    hl::XtermWebView view(&controller);
    std::vector<QUrl> opened;
    view.coordinator().openExternal = [&](const QUrl& url) { opened.push_back(url); };
    view.resize(900, 500);
    view.show();
    QApplication::setActiveWindow(&view);
    EXPECT_TRUE(QTest::qWaitForWindowActive(&view));

    ASSERT_TRUE(spinUntil([&] { return view.coordinator().isReady(); }))
        << "the document said ready";
    ASSERT_TRUE(spinUntil([&] { return controller.status() == "Connected"; }))
        << controller.status().toStdString();
    ASSERT_TRUE(spinUntil([&] { return !history(controller).empty(); })) << "the shell's prompt";
    QTest::qWait(300);

    view.webView()->setFocus();
    controller.requestFocus();
    ASSERT_TRUE(spinUntil(
        [&] {
            return evaluate(view.webView(),
                            "document.activeElement && document.activeElement.tagName")
                       .toString() == "TEXTAREA";
        },
        10s))
        << "the terminal has the keyboard";
    QWidget* target = view.webView()->focusProxy() ? view.webView()->focusProxy() : view.webView();
    QTest::keyClicks(target, "echo web-$((6*7))");
    QTest::keyClick(target, Qt::Key_Return);
    ASSERT_TRUE(spinUntil([&] { return history(controller).find("web-42") != std::string::npos; }))
        << history(controller);
    ASSERT_TRUE(spinUntil([&] {
        return evaluate(view.webView(), "document.querySelector('.xterm-rows').innerText")
            .toString()
            .contains("web-42");
    })) << "the page shows the output";

    const QString screenshots = QString(HL_SCREENSHOT_DIR);
    QDir().mkpath(screenshots);
    QTest::qWait(500);  // let the compositor catch up before the picture
    view.grab().save(screenshots + "/terminal-view.png");

    // Navigation away from the document is refused; window.open opens nothing.
    const QUrl documentUrl = view.webView()->page()->url();
    evaluate(view.webView(),
             "location.href = 'https://example.org/'; window.open('https://example.org/'); 1");
    QTest::qWait(300);
    EXPECT_EQ(view.webView()->page()->url(), documentUrl);
    EXPECT_TRUE(opened.empty());
    // A link posted by the page goes out only through the check.
    evaluate(view.webView(),
             "window.webkit.messageHandlers.openLink.postMessage('https://example.org/x');"
             "window.webkit.messageHandlers.openLink.postMessage('file:///etc/passwd'); 1");
    ASSERT_TRUE(spinUntil([&] { return !opened.empty(); }, 5s));
    QTest::qWait(200);
    EXPECT_EQ(opened.size(), 1u);

    controller.close();
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Shells start with a home of their own, not the user's start-up files.
    char home[] = "/tmp/hl-home-XXXXXX";
    if (::mkdtemp(home) != nullptr) qputenv("HOME", home);
    // The assets are found through the source tree, as a developer's build finds them.
    qputenv("HARBORLATTICE_ROOT", HL_SOURCE_DIR);
    if (::geteuid() == 0) qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    hl::TerminalDocumentScheme::registerScheme();
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
