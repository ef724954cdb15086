// Entry point of the update and idea tests: the application tests' private
// environment, a private D-Bus session bus for the file manager's service,
// then a QApplication on the offscreen platform.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>

#include <string>

#include "AppTestSupport.h"
#include "ProcessEnvironment.h"
#include "UpdatesTestSupport.h"

namespace {

pid_t busPid = 0;
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

}  // namespace

namespace hl::updatestest {
const std::string& sessionBusAddress() {
    return busAddress;
}
}  // namespace hl::updatestest

int main(int argc, char** argv) {
    hl::apptest::prepareTestEnvironment();
    hl::prepareProcessEnvironment();
    startPrivateBus();
    int result = 0;
    {
        QApplication app(argc, argv);
        ::testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    if (busPid > 0) {
        ::kill(busPid, SIGTERM);
        ::waitpid(busPid, nullptr, 0);
    }
    hl::apptest::cleanUpTestEnvironment();
    return result;
}
