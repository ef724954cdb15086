// The terminal renderer for real: the composed document in Qt WebEngine with
// its message-handler bridge, a controller on a real node, typed keys reaching
// the shell and its output reaching the page; links and navigations refused,
// and the terminal scheme serving its one document and nothing else.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QTest>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineUrlRequestInterceptor>
#include <QWebEngineView>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "NodeHarness.h"
#include "ProcessEnvironment.h"
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
QVariant evaluate(QWebEnginePage& page, const QString& script) {
    QVariant result;
    bool done = false;
    page.runJavaScript(script, [&](const QVariant& value) {
        result = value;
        done = true;
    });
    spinUntil([&] { return done; }, 10s);
    return result;
}

QVariant evaluate(QWebEngineView* view, const QString& script) {
    return evaluate(*view->page(), script);
}

// Every address a profile's pages ask for, in order.
class RequestRecorder : public QWebEngineUrlRequestInterceptor {
  public:
    void interceptRequest(QWebEngineUrlRequestInfo& info) override {
        const std::lock_guard lock(mutex_);
        urls_.push_back(info.requestUrl());
    }
    std::vector<QUrl> urls() {
        const std::lock_guard lock(mutex_);
        return urls_;
    }

  private:
    std::mutex mutex_;
    std::vector<QUrl> urls_;
};

// Loads `url` into `page` and tells whether it loaded.
bool loads(QWebEnginePage& page, const QUrl& url) {
    std::optional<bool> finished;
    const auto connection =
        QObject::connect(&page, &QWebEnginePage::loadFinished, [&](bool ok) { finished = ok; });
    page.load(url);
    spinUntil([&] { return finished.has_value(); }, 20s);
    QObject::disconnect(connection);
    return finished.value_or(false);
}

std::string history(const hl::TerminalController& controller) {
    QByteArray bytes;
    for (const auto& chunk : controller.rendererHistory()) {
        bytes += QByteArray::fromBase64(QByteArray::fromStdString(chunk));
    }
    return bytes.toStdString();
}

hl::TerminalController* makeController(hl::node::testing::NodeHarness& node, QObject* parent) {
    hl::TerminalControllerHooks hooks;
    hooks.ensureNodeRunning = [] {};
    auto* controller = new hl::TerminalController(
        std::nullopt, node.folder(), false, true, true, {},
        QStringLiteral("Working directory unavailable · focus to retry"),
        QStringLiteral("Saved workspace data is unsafe · new session blocked"),
        std::make_shared<hl::UnixSocketClient>(node.socketPath()), hooks);
    controller->setParent(parent);
    return controller;
}

// The text a pane's terminal shows.
QString screen(hl::XtermWebView& view, const QUuid& pane) {
    return evaluate(view.webView(), "document.querySelector('[data-pane=\"" +
                                        pane.toString(QUuid::WithoutBraces) +
                                        "\"] .xterm-rows').innerText")
        .toString();
}

// Two panes in one document: each pane's keys reach its own shell and each
// shell's output its own terminal, at the place its pane gave it.
TEST(XtermWebViewTest, KeysReachTheirShellAndOutputItsTerminalInADocumentOfTwo) {
    hl::node::testing::NodeHarness node;
    QObject owner;
    hl::TerminalController* left = makeController(node, &owner);
    hl::TerminalController* right = makeController(node, &owner);
    const QUuid leftPane = QUuid::createUuid();
    const QUuid rightPane = QUuid::createUuid();
    hl::XtermWebView view;
    std::vector<QUrl> opened;
    view.open(leftPane, left)->openExternal = [&](const QUrl& url) { opened.push_back(url); };
    view.open(rightPane, right);
    view.place(leftPane, QRect(0, 0, 446, 500));
    view.place(rightPane, QRect(454, 0, 446, 500));
    view.resize(900, 500);
    view.show();
    QApplication::setActiveWindow(&view);
    EXPECT_TRUE(QTest::qWaitForWindowActive(&view));

    for (const QUuid& pane : {leftPane, rightPane}) {
        ASSERT_TRUE(spinUntil([&] { return view.coordinator(pane)->isReady(); }))
            << "the terminal said ready";
    }
    for (auto* controller : {left, right}) {
        ASSERT_TRUE(spinUntil([&] { return controller->status() == "Connected"; }))
            << controller->status().toStdString();
        ASSERT_TRUE(spinUntil([&] { return !history(*controller).empty(); }))
            << "the shell's prompt";
    }
    EXPECT_EQ(view.paneAt(QPoint(500, 10)), rightPane);
    EXPECT_EQ(view.paneAt(QPoint(450, 10)), std::nullopt) << "the gap between them";
    QTest::qWait(300);

    view.webView()->setFocus();
    right->requestFocus();
    QWidget* target = view.webView()->focusProxy() ? view.webView()->focusProxy() : view.webView();
    ASSERT_TRUE(spinUntil(
        [&] {
            return evaluate(view.webView(),
                            "document.activeElement?.closest('[data-pane]')?.dataset.pane ?? ''")
                       .toString() == rightPane.toString(QUuid::WithoutBraces);
        },
        10s))
        << "the right terminal has the keyboard";
    QTest::keyClicks(target, "echo web-$((6*7))");
    QTest::keyClick(target, Qt::Key_Return);
    ASSERT_TRUE(spinUntil([&] { return history(*right).find("web-42") != std::string::npos; }))
        << history(*right);
    ASSERT_TRUE(spinUntil([&] { return screen(view, rightPane).contains("web-42"); }))
        << "the page shows the output";
    EXPECT_EQ(history(*left).find("web-"), std::string::npos) << history(*left);
    EXPECT_FALSE(screen(view, leftPane).contains("web-"));

    const QString screenshots = QString(HL_SCREENSHOT_DIR);
    QDir().mkpath(screenshots);
    QTest::qWait(500);  // let the compositor catch up before the picture
    view.grab().save(screenshots + "/terminal-view.png");

    // Navigation away from the document is refused, to another address of its
    // own scheme too; window.open opens nothing.
    evaluate(view.webView(),
             "location.href = 'https://example.org/'; window.open('https://example.org/'); 1");
    evaluate(view.webView(), "location.href = 'harborlattice://terminal/xterm.js'; 1");
    QTest::qWait(300);
    EXPECT_EQ(view.webView()->page()->url(), hl::TerminalDocumentScheme::documentUrl());
    EXPECT_TRUE(view.coordinator(leftPane)->isReady());
    EXPECT_TRUE(opened.empty());
    // A link posted by the page goes out only through the check, and only
    // for a pane that is open.
    const QString post =
        "window.webkit.messageHandlers.openLink.postMessage({pane: '%1', body: '%2'});";
    evaluate(
        view.webView(),
        post.arg(leftPane.toString(QUuid::WithoutBraces), "https://example.org/x") +
            post.arg(leftPane.toString(QUuid::WithoutBraces), "file:///etc/passwd") +
            post.arg(QUuid::createUuid().toString(QUuid::WithoutBraces), "https://example.org/y") +
            "1");
    ASSERT_TRUE(spinUntil([&] { return !opened.empty(); }, 5s));
    QTest::qWait(200);
    EXPECT_EQ(opened, std::vector<QUrl>{QUrl("https://example.org/x")});

    // A closed pane's terminal leaves the document and its controller.
    view.close(leftPane);
    EXPECT_EQ(left->surface(), nullptr);
    EXPECT_TRUE(spinUntil([&] {
        return evaluate(view.webView(), "document.querySelectorAll('[data-pane]').length")
                   .toInt() == 1;
    }));
    left->close();
    right->close();
}

// Keys go to the pane that was selected when they were pressed, in order,
// while another pane of the same document receives a flood of output: a
// switch between panes takes effect between two keys, never inside a word.
TEST(XtermWebViewTest, KeysFollowThePaneSelectedWhenTheyWerePressedDuringAFlood) {
    hl::node::testing::NodeHarness node;
    QObject owner;
    hl::TerminalController* busy = makeController(node, &owner);
    hl::TerminalController* quiet = makeController(node, &owner);
    const QUuid busyPane = QUuid::createUuid();
    const QUuid quietPane = QUuid::createUuid();
    hl::XtermWebView view;
    view.open(busyPane, busy);
    view.open(quietPane, quiet);
    view.place(busyPane, QRect(0, 0, 446, 500));
    view.place(quietPane, QRect(454, 0, 446, 500));
    view.resize(900, 500);
    view.show();
    QApplication::setActiveWindow(&view);
    EXPECT_TRUE(QTest::qWaitForWindowActive(&view));
    for (auto* controller : {busy, quiet}) {
        ASSERT_TRUE(spinUntil([&] { return !history(*controller).empty(); }))
            << "the shell's prompt";
    }
    view.webView()->setFocus();
    busy->requestFocus();
    QWidget* target = view.webView()->focusProxy() ? view.webView()->focusProxy() : view.webView();
    QTest::keyClicks(target, "clear; seq 1 1000000; echo flood-$((40+2))");
    QTest::keyClick(target, Qt::Key_Return);
    ASSERT_TRUE(spinUntil([&] { return busy->rendererHistoryBytes() > 1000000; }))
        << "the flood has begun: " << history(*busy);

    // Each round: select the quiet pane, type a command into it at once,
    // select the busy pane again and type a comment there.
    for (int round = 0; round < 6; ++round) {
        busy->resignFocus();
        quiet->requestFocus();
        QTest::keyClicks(target, QStringLiteral("echo routed-%1-abcdefghijklmnop").arg(round));
        QTest::keyClick(target, Qt::Key_Return);
        quiet->resignFocus();
        busy->requestFocus();
        QTest::keyClicks(target, "#x");
    }
    // The end of the busy pane's output (the last batches; an echo may come in
    // many small ones), which the flood keeps short of the cap.
    const auto recentOutput = [&] {
        const auto chunks = busy->rendererHistory();
        QByteArray bytes;
        for (auto chunk = chunks.size() > 256 ? chunks.end() - 256 : chunks.begin();
             chunk != chunks.end(); ++chunk) {
            bytes += QByteArray::fromBase64(QByteArray::fromStdString(*chunk));
        }
        return bytes.toStdString();
    };
    ASSERT_TRUE(
        spinUntil([&] { return recentOutput().find("flood-42\r\n") != std::string::npos; }, 120s))
        << "the flood ended";
    ASSERT_TRUE(spinUntil([&] {
        return history(*quiet).find("routed-5-abcdefghijklmnop\r\n") != std::string::npos;
    })) << history(*quiet);
    QTest::qWait(300);
    const std::string quietOutput = history(*quiet);
    for (int round = 0; round < 6; ++round) {
        // The command's line and its output, whole.
        const std::string line = "routed-" + std::to_string(round) + "-abcdefghijklmnop\r\n";
        const auto command = quietOutput.find("echo " + line);
        ASSERT_NE(command, std::string::npos) << round << quietOutput;
        EXPECT_NE(quietOutput.find(line, command + 5 + line.size()), std::string::npos)
            << round << quietOutput;
    }
    EXPECT_EQ(quietOutput.find("#x"), std::string::npos) << quietOutput;
    EXPECT_EQ(quietOutput.find("not found"), std::string::npos) << quietOutput;
    // What was typed into the busy pane meanwhile waits for its shell, in order.
    EXPECT_TRUE(spinUntil(
        [&] {
            const std::string output = recentOutput();
            return output.find("#x#x#x#x#x#x", output.find("flood-42\r\n")) != std::string::npos;
        },
        10s))
        << recentOutput();
    const std::string typedAhead = recentOutput();
    EXPECT_EQ(typedAhead.find("routed-", typedAhead.find("flood-42\r\n")), std::string::npos)
        << typedAhead;
    busy->close();
    quiet->close();
}

// Pages that start together wait for the first to load, and then find its
// scripts in the renderer instead of each fetching its own copy; they ask for
// nothing else.
TEST(XtermWebViewTest, PagesStartedTogetherFetchTheScriptsOnce) {
    RequestRecorder requests;
    hl::XtermWebView::profile()->setUrlRequestInterceptor(&requests);
    // The profile outlives the recorder, whichever way the test ends.
    const std::shared_ptr<void> detachRecorder(
        nullptr, [](void*) { hl::XtermWebView::profile()->setUrlRequestInterceptor(nullptr); });
    QWidget window;
    auto* layout = new QHBoxLayout(&window);
    std::vector<hl::XtermCoordinator*> terminals;
    for (int i = 0; i < 3; ++i) {
        auto* view = new hl::XtermWebView(&window);
        terminals.push_back(view->open(QUuid::createUuid(), nullptr));
        layout->addWidget(view);
    }
    window.resize(900, 300);
    window.show();
    ASSERT_TRUE(spinUntil([&] {
        return std::all_of(terminals.begin(), terminals.end(),
                           [](auto* terminal) { return terminal->isReady(); });
    })) << "every page said ready";
    const QUrl documentUrl = hl::TerminalDocumentScheme::documentUrl();
    std::map<QString, int> asked;
    for (const QUrl& url : requests.urls())
        ++asked[url.toString()];
    std::map<QString, int> expected{{documentUrl.toString(), 3}};
    for (const char* script : {"xterm.js", "addon-fit.js", "addon-web-links.js", "addon-search.js",
                               "addon-unicode11.js"})
        expected[documentUrl.resolved(QUrl(script)).toString()] = 1;
    EXPECT_EQ(asked, expected);
}

TEST(XtermWebViewTest, TheSchemeServesItsDocumentAndNothingElse) {
    QWebEngineProfile profile;
    int asked = 0;
    bool readable = false;
    profile.installUrlSchemeHandler(
        hl::TerminalDocumentScheme::name,
        new hl::TerminalDocumentSchemeHandler(
            [&]() -> std::optional<hl::TerminalDocumentFiles> {
                ++asked;
                if (!readable) return std::nullopt;
                return hl::TerminalDocumentFiles{
                    {"", "<p>served</p><script src=\"xterm.js\"></script>"},
                    {"xterm.js", "document.querySelector('p').textContent += '+script';"}};
            },
            "<p>unavailable</p>", &profile));
    QWebEnginePage page(&profile);
    const QUrl document = hl::TerminalDocumentScheme::documentUrl();
    // Unreadable assets: the one-line page, and the files are asked for again.
    ASSERT_TRUE(loads(page, document));
    EXPECT_EQ(evaluate(page, "document.body.innerText").toString(), "unavailable");
    readable = true;
    ASSERT_TRUE(loads(page, document));
    EXPECT_EQ(evaluate(page, "document.body.innerText").toString(), "served+script");
    for (const char* other :
         {"harborlattice://terminal/addon-fit.js", "harborlattice://terminal/?x=1",
          "harborlattice://elsewhere/", "harborlattice://elsewhere/xterm.js",
          "harborlattice://terminal/folder/xterm.js", "harborlattice://terminal/..%2Fxterm.js"}) {
        EXPECT_FALSE(loads(page, QUrl(other))) << other;
    }
    ASSERT_TRUE(loads(page, document));
    EXPECT_EQ(asked, 2) << "what was read is kept";
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Shells start with a home of their own, not the user's start-up files.
    char home[] = "/tmp/hl-home-XXXXXX";
    if (::mkdtemp(home) != nullptr) qputenv("HOME", home);
    // The assets are found through the source tree, as a developer's build finds them.
    qputenv("HARBORLATTICE_ROOT", HL_SOURCE_DIR);
    hl::prepareProcessEnvironment();
    std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
    int qtArgc = static_cast<int>(arguments.size()) - 1;
    QApplication app(qtArgc, arguments.data());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
