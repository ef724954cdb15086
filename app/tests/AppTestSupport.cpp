// Test environment, waits, screenshots and node processes.
#include "AppTestSupport.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTest>

#include <fstream>
#include <sstream>
#include <thread>

#include "NodeClient.h"
#include "TerminalController.h"

namespace hl::apptest {

namespace {

std::filesystem::path makeBase() {
    std::string pattern = (std::filesystem::temp_directory_path() / "hl-app-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    return std::filesystem::canonical(pattern);
}

// The pids whose environment names a socket inside baseFolder().
std::vector<pid_t> processesOfThisTest() {
    const std::string marker = "HARBORLATTICE_SOCKET=" + baseFolder().string() + "/";
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const pid_t pid = std::stoi(name);
        if (pid == ::getpid()) continue;
        std::ifstream environ(entry.path() / "environ", std::ios::binary);
        std::stringstream bytes;
        bytes << environ.rdbuf();
        std::string variable;
        while (std::getline(bytes, variable, '\0')) {
            if (variable.rfind(marker, 0) == 0) {
                found.push_back(pid);
                break;
            }
        }
    }
    return found;
}

}  // namespace

const std::filesystem::path& baseFolder() {
    static const std::filesystem::path base = makeBase();
    return base;
}

void prepareTestEnvironment() {
    const auto& base = baseFolder();
    for (const char* folder : {"home", "config", "data", "projects"})
        std::filesystem::create_directories(base / folder);
    ::setenv("HOME", (base / "home").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (base / "config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (base / "data").c_str(), 1);
    ::setenv("HARBORLATTICE_SOCKET", (base / "node.sock").c_str(), 1);
    ::setenv("HARBORLATTICE_NODE_EXECUTABLE", HL_NODE_EXECUTABLE, 1);
    // The terminal document's assets come from the source checkout: the test
    // executable has no resource folder beside it.
    ::setenv("HARBORLATTICE_ROOT", HL_SOURCE_DIR, 1);
    // One offscreen screen large enough for the window's preferred size.
    const auto screens = baseFolder() / "offscreen.json";
    std::ofstream(screens) << R"({"screens": [{"name": "test", "x": 0, "y": 0, "width": 1600,
                                 "height": 1000, "logicalDpi": 96, "dpr": 1}]})";
    qputenv("QT_QPA_PLATFORM", QByteArray("offscreen:configfile=") + screens.c_str());
}

void cleanUpTestEnvironment() {
    for (const pid_t pid : processesOfThisTest())
        ::kill(pid, SIGTERM);
    for (int i = 0; i < 50 && !processesOfThisTest().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (const pid_t pid : processesOfThisTest())
        ::kill(pid, SIGKILL);
    std::error_code ignored;
    std::filesystem::remove_all(baseFolder(), ignored);
}

bool spinUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeout.count()) return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        // What a running event loop would delete on its next turn.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QTest::qSleep(10);
    }
    return true;
}

void spinFor(std::chrono::milliseconds span) {
    spinUntil([] { return false; }, span);
}

std::string socketPath() {
    return qEnvironmentVariable("HARBORLATTICE_SOCKET").toStdString();
}

QByteArray rendererBytes(const TerminalController& controller) {
    QByteArray bytes;
    for (const auto& chunk : controller.rendererHistory())
        bytes += QByteArray::fromBase64(QByteArray::fromStdString(chunk));
    return bytes;
}

bool nodeAnswers(const std::string& socketPath) {
    try {
        UnixSocketClient(socketPath).request("health");
        return true;
    } catch (...) {
        return false;
    }
}

std::vector<std::string> nodeSessions(const std::string& socketPath) {
    std::vector<std::string> ids;
    const auto reply = UnixSocketClient(socketPath).request("list_sessions");
    for (const auto& each : reply["session_ids"].arrayValue().value_or(std::vector<JSONValue>{}))
        ids.push_back(each.stringValue().value_or(""));
    return ids;
}

QString saveScreenshot(QWidget* widget, const QString& name) {
    QDir().mkpath(QStringLiteral(HL_SCREENSHOT_DIR));
    const QString path = QStringLiteral(HL_SCREENSHOT_DIR) + "/" + name + ".png";
    widget->grab().save(path);
    return path;
}

}  // namespace hl::apptest
