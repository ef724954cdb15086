// Entry point of the update, idea and settings tests: the application tests'
// private environment, a private D-Bus session bus for the file manager's
// service and, on it, a real Secret Service (gnome-keyring-daemon with a login
// keyring of its own under the test's home), then a QApplication on the
// offscreen platform.
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
#include <vector>

#include "AppTestSupport.h"
#include "ProcessEnvironment.h"
#include "UpdatesTestSupport.h"

namespace {

pid_t busPid = 0;
pid_t keyringPid = 0;
bool keyringRuns = false;
std::string busAddress;

// Starts a session bus of this test's own, which ends with this process
// however it ends; its address goes to the environment.
void startPrivateBus() {
    int out[2];
    if (::pipe(out) != 0) return;
    const pid_t parent = ::getpid();
    busPid = ::fork();
    if (busPid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(1);
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address=1",
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    char c = 0;
    while (busPid > 0 && ::read(out[0], &c, 1) == 1 && c != '\n')
        busAddress += c;
    ::close(out[0]);
    if (!busAddress.empty()) ::setenv("DBUS_SESSION_BUS_ADDRESS", busAddress.c_str(), 1);
}

// Starts gnome-keyring-daemon on that bus; the password written to it unlocks
// (and first creates) the login keyring.
void startSecretService() {
    int in[2];
    if (busAddress.empty() || ::pipe(in) != 0) return;
    const pid_t parent = ::getpid();
    keyringPid = ::fork();
    if (keyringPid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(1);
        ::dup2(in[0], STDIN_FILENO);
        ::close(in[0]);
        ::close(in[1]);
        ::execlp("gnome-keyring-daemon", "gnome-keyring-daemon", "--foreground", "--unlock",
                 "--components=secrets", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(in[0]);
    const char password[] = "keyring-password";
    (void)!::write(in[1], password, sizeof password - 1);
    ::close(in[1]);
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace

namespace hl::updatestest {
const std::string& sessionBusAddress() {
    return busAddress;
}
bool secretServiceRuns() {
    return keyringRuns;
}
}  // namespace hl::updatestest

int main(int argc, char** argv) {
    hl::apptest::prepareTestEnvironment();
    hl::prepareProcessEnvironment();
    const std::string runtime = (hl::apptest::baseFolder() / "runtime").string();
    ::mkdir(runtime.c_str(), 0700);
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    startPrivateBus();
    startSecretService();
    int result = 0;
    {
        std::vector<char*> arguments = hl::withWebEngineOptions(argc, argv);
        int qtArgc = static_cast<int>(arguments.size()) - 1;
        QApplication app(qtArgc, arguments.data());
        auto* bus = QDBusConnection::sessionBus().interface();
        for (int i = 0; i < 100 && bus && keyringPid > 0 && !keyringRuns; ++i) {
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
