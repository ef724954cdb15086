// The application as a user installs it: `cmake --install` into a staging root
// under the build tree, then the installed executable started on its own,
// offscreen, with a home of its own and nothing pointing at the source or build
// tree. It has to find its node and the terminal document's assets from the
// prefix alone: a pane only asks the node for a shell once its document has
// loaded, so a prompt in that shell shows both were found.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Base64.h"
#include "NodeClient.h"
#include "Preferences.h"
#include "RuntimePaths.h"
#include "WorkspaceStore.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string appID = "com.quarrynotch.harborlattice";
const fs::path stagingRoot = fs::path(HL_BUILD_DIR) / "install-test";
const fs::path prefix = stagingRoot / "usr";

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// Standard output of a shell command.
std::string capture(const std::string& command) {
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
            output.append(buffer, n);
        ::pclose(pipe);
    }
    return output;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (done()) return true;
        std::this_thread::sleep_for(100ms);
    }
    return done();
}

// The pids whose environment names `socket` as theirs: the node and its shells,
// and the application.
std::vector<pid_t> processesUsing(const std::string& socket) {
    const std::string marker = "HARBORLATTICE_SOCKET=" + socket;
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const pid_t pid = std::stoi(name);
        if (pid == ::getpid()) continue;
        std::stringstream environment(readFile(entry.path() / "environ"));
        std::string variable;
        while (std::getline(environment, variable, '\0')) {
            if (variable == marker) {
                found.push_back(pid);
                break;
            }
        }
    }
    return found;
}

// Each test installs into the staging root and runs with a home, XDG folders
// and a node socket of its own; whatever it started is stopped afterwards.
class InstalledApplication : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        fs::remove_all(stagingRoot);
        const std::string command = "DESTDIR='" + stagingRoot.string() +
                                    "' '" HL_CMAKE_COMMAND "' --install '" HL_BUILD_DIR
                                    "' --prefix /usr 2>&1";
        installLog_ = capture(command + "; echo status=$?");
        installed_ = installLog_.ends_with("status=0\n");
    }

    void SetUp() override {
        ASSERT_TRUE(installed_) << installLog_;
        std::string pattern = "/tmp/hl-installed-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        base_ = pattern;
        for (const char* folder : {"home", "config", "data"})
            fs::create_directories(base_ / folder);
        socket_ = (base_ / "node.sock").string();
        ::setenv("HOME", (base_ / "home").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (base_ / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (base_ / "data").c_str(), 1);
        ::setenv("HARBORLATTICE_SOCKET", socket_.c_str(), 1);
        ::unsetenv("HARBORLATTICE_ROOT");
        ::unsetenv("HARBORLATTICE_NODE_EXECUTABLE");
    }

    void TearDown() override {
        if (app_ > 0) {
            ::kill(app_, SIGTERM);
            if (!waitUntil([&] { return ::waitpid(app_, nullptr, WNOHANG) == app_; }, 20s)) {
                ::kill(app_, SIGKILL);
                ::waitpid(app_, nullptr, 0);
            }
        }
        if (!socket_.empty()) {
            for (const pid_t pid : processesUsing(socket_))
                ::kill(pid, SIGKILL);
            waitUntil([&] { return processesUsing(socket_).empty(); }, 10s);
        }
        for (const pid_t pid : helpers_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        if (!base_.empty()) fs::remove_all(base_);
    }

    // Starts the installed application from "/" with `variable` (NAME=value)
    // added to this process's environment; its output goes to log().
    void startApplication(const std::string& variable) {
        app_ = ::fork();
        ASSERT_GE(app_, 0);
        if (app_ == 0) {
            const int out = ::open(log().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(out, 1);
            ::dup2(out, 2);
            if (::chdir("/") != 0) ::_exit(126);
            ::putenv(const_cast<char*>(variable.c_str()));
            const std::string program = (prefix / "bin/harborlattice").string();
            ::execl(program.c_str(), program.c_str(), nullptr);
            ::_exit(127);
        }
    }

    fs::path log() const { return base_ / "app.log"; }

    static inline std::string installLog_;
    static inline bool installed_ = false;
    fs::path base_;
    std::string socket_;
    pid_t app_ = -1;
    std::vector<pid_t> helpers_;
};

// Which files the tree holds is checked on the package (debian_package); that
// the programs run and find their assets, by the next test.
TEST_F(InstalledApplication, TheLauncherEntryNamesTheInstalledProgramAndNothingPointsBack) {
    // The launcher entry names the installed program and the installed icon.
    const fs::path entry = prefix / "share/applications" / (appID + ".desktop");
    const std::string desktop = readFile(entry);
    EXPECT_NE(desktop.find("\nExec=harborlattice\n"), std::string::npos) << desktop;
    EXPECT_NE(desktop.find("\nIcon=" + appID + "\n"), std::string::npos) << desktop;
    const std::string metainfo = readFile(prefix / "share/metainfo" / (appID + ".metainfo.xml"));
    EXPECT_NE(metainfo.find("<launchable type=\"desktop-id\">" + appID + ".desktop</launchable>"),
              std::string::npos);

    // No run path into the build tree in a program, no path to either tree in data.
    int files = 0;
    for (const auto& file : fs::recursive_directory_iterator(stagingRoot)) {
        if (!file.is_regular_file()) continue;
        ++files;
        const std::string bytes = readFile(file.path());
        if (bytes.starts_with("\x7f"
                              "ELF")) {
            const std::string dynamic = capture("readelf -d '" + file.path().string() + "'");
            EXPECT_NE(dynamic.find("NEEDED"), std::string::npos) << file.path();
            EXPECT_EQ(dynamic.find("RPATH"), std::string::npos) << file.path() << dynamic;
            EXPECT_EQ(dynamic.find("RUNPATH"), std::string::npos) << file.path() << dynamic;
        } else {
            EXPECT_EQ(bytes.find(HL_SOURCE_DIR), std::string::npos) << file.path();
            EXPECT_EQ(bytes.find(HL_BUILD_DIR), std::string::npos) << file.path();
        }
    }
    EXPECT_GE(files, 12);
}

TEST_F(InstalledApplication, StartedAloneItShowsAPromptFromTheInstalledNode) {
    // A saved Scratch tab with one pane, as a user would leave it.
    QString cwd;
    {
        hl::WorkspaceStoreOptions options;
        options.defaults = hl::Preferences::open(hl::RuntimePaths::preferencesFile());
        hl::WorkspaceStore store(std::move(options));
        store.createScratchTerminal();
        ASSERT_EQ(store.tabs().size(), 1u) << store.errorMessageText().toStdString();
        cwd = store.tabs().front()->panes().front()->context().cwd;
    }

    startApplication("QT_QPA_PLATFORM=offscreen");

    const hl::UnixSocketClient node(socket_);
    const auto replay = [&](const std::string& id) {
        try {
            const auto reply = node.request(
                "replay_session", {{"session_id", id}, {"expected_cwd", cwd.toStdString()}});
            return hl::base64::decode(reply["output_base64"].stringValue().value_or(""))
                .value_or("");
        } catch (...) {
            return std::string();
        }
    };
    std::string session;
    const bool started = waitUntil(
        [&] {
            try {
                const auto ids = node.request("list_sessions")["session_ids"].arrayValue();
                if (ids && !ids->empty()) session = ids->front().stringValue().value_or("");
            } catch (...) {
            }
            return !session.empty();
        },
        120s);
    EXPECT_TRUE(started) << "no session reached the node; the application said:\n"
                         << readFile(log());

    if (started) {
        // The running node is the one installed beside the application.
        std::set<fs::path> executables;
        for (const pid_t pid : processesUsing(socket_)) {
            std::error_code error;
            executables.insert(fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error));
        }
        EXPECT_TRUE(executables.contains(prefix / "bin/harborlattice-node"));
        EXPECT_FALSE(executables.contains(fs::path(HL_BUILD_DIR) / "harborlattice-node"));

        // A prompt from the shell in the restored pane. The pane asks for a
        // shell of 120 by 36 cells; once the terminal document has loaded in
        // the window it fits the terminal to the pane, so the shell waits for
        // its size to change before it answers.
        const bool prompted = waitUntil(
            [&] {
                const std::string output = replay(session);
                return output.ends_with("$ ") || output.ends_with("# ");
            },
            60s);
        EXPECT_TRUE(prompted) << replay(session);
        const std::string command =
            "while [ \"$(stty size)\" = '36 120' ]; do sleep 0.2; done; "
            "echo installed-$((6*7)) $(stty size)\r";
        node.request("input",
                     {{"session_id", session}, {"input_base64", hl::base64::encode(command)}});
        EXPECT_TRUE(waitUntil(
            [&] { return replay(session).find("installed-42 ") != std::string::npos; }, 120s))
            << "the document never fitted the terminal:\n"
            << replay(session) << "\nThe application said:\n"
            << readFile(log());
    }
}

// On an X server the window carries the class that the launcher entry's
// StartupWMClass names (so the launcher groups the window with its entry) and
// the application's icon at every size it was drawn at.
TEST_F(InstalledApplication, OnAnXServerTheWindowMatchesItsLauncherEntry) {
    int display[2];
    ASSERT_EQ(::pipe(display), 0);
    const pid_t server = ::fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        ::close(display[0]);
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 1);
        ::dup2(null, 2);
        const std::string fd = std::to_string(display[1]);
        ::execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1600x1000x24",
                 "-nolisten", "tcp", nullptr);
        ::_exit(127);
    }
    helpers_.push_back(server);
    ::close(display[1]);
    std::string number;
    char c;
    while (::read(display[0], &c, 1) == 1 && c != '\n')
        number += c;
    ::close(display[0]);
    ASSERT_FALSE(number.empty()) << "Xvfb did not start";
    const std::string x = "DISPLAY=:" + number + " ";

    const std::string desktop = readFile(prefix / "share/applications" / (appID + ".desktop"));
    const auto key = desktop.find("\nStartupWMClass=");
    ASSERT_NE(key, std::string::npos) << desktop;
    const std::string wmClass = desktop.substr(key + 16, desktop.find('\n', key + 1) - key - 16);

    startApplication("DISPLAY=:" + number);
    // xwininfo lists each window as: id "title": ("instance" "class") geometry.
    std::string window;
    const bool shown = waitUntil(
        [&] {
            std::stringstream tree(capture(x + "xwininfo -root -tree 2>/dev/null"));
            std::string line;
            while (std::getline(tree, line)) {
                if (line.find("\"harborlattice\" \"" + wmClass + "\")") == std::string::npos)
                    continue;
                std::stringstream words(line);
                words >> window;
                return true;
            }
            return false;
        },
        60s);
    ASSERT_TRUE(shown) << "no window of class " << wmClass << ":\n"
                       << capture(x + "xwininfo -root -tree") << readFile(log());

    const std::string icon = capture(x + "xprop -id " + window + " _NET_WM_ICON");
    for (const int size : {16, 32, 48, 128}) {
        const std::string drawn =
            "Icon (" + std::to_string(size) + " x " + std::to_string(size) + ")";
        EXPECT_NE(icon.find(drawn), std::string::npos) << drawn << " in " << icon.substr(0, 200);
    }
}

}  // namespace
