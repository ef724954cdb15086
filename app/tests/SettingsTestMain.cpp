// Entry point of the Settings window tests: the application tests' private
// environment, a private D-Bus session bus, and on it a real Secret Service
// (gnome-keyring-daemon with a login keyring of its own under the test's
// home), then a QApplication on the offscreen platform.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>

#include <string>

#include "AppTestSupport.h"
#include "ProcessEnvironment.h"
#include "SettingsTestSupport.h"

namespace {

pid_t busPid = 0;
pid_t keyringPid = 0;
bool keyringRuns = false;

// Starts `argv` in a child that ends with this process; `input`, when given,
// is written to its standard input, and its first line of output is returned.
pid_t startChild(const std::vector<const char*>& argv, const std::string& input,
                 std::string* firstLine) {
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) return 0;
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(1);
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        for (int fd : {in[0], in[1], out[0], out[1]})
            ::close(fd);
        std::vector<char*> args;
        for (const char* each : argv)
            args.push_back(const_cast<char*>(each));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (!input.empty()) (void)!::write(in[1], input.data(), input.size());
    ::close(in[1]);
    char c = 0;
    while (firstLine && ::read(out[0], &c, 1) == 1 && c != '\n')
        *firstLine += c;
    if (firstLine) ::close(out[0]);
    return pid;
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace

namespace hl::settingstest {
bool secretServiceRuns() {
    return keyringRuns;
}
}  // namespace hl::settingstest

int main(int argc, char** argv) {
    hl::apptest::prepareTestEnvironment();
    hl::prepareProcessEnvironment();
    const std::string runtime = (hl::apptest::baseFolder() / "runtime").string();
    ::mkdir(runtime.c_str(), 0700);
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    std::string address;
    busPid =
        startChild({"dbus-daemon", "--session", "--nofork", "--print-address=1"}, {}, &address);
    if (!address.empty()) ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    // The keyring's password unlocks (and first creates) the login keyring.
    keyringPid =
        startChild({"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"},
                   "keyring-password", nullptr);
    int result = 0;
    {
        QApplication app(argc, argv);
        auto* bus = QDBusConnection::sessionBus().interface();
        for (int i = 0; i < 100 && bus && !keyringRuns; ++i) {
            keyringRuns = bus->isServiceRegistered("org.freedesktop.secrets");
            if (!keyringRuns) ::usleep(50'000);
        }
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    stop(keyringPid);
    stop(busPid);
    hl::apptest::cleanUpTestEnvironment();
    return result;
}
