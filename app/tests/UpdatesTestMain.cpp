// Entry point of the update and idea tests: the application tests' private
// environment, a private D-Bus session bus for the file manager's service,
// then a QApplication on the offscreen platform.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <QApplication>

#include <cstdio>
#include <string>

#include "AppTestSupport.h"
#include "ProcessEnvironment.h"
#include "UpdatesTestSupport.h"

namespace {

pid_t busPid = 0;
std::string busAddress;

// Starts a session bus of this test's own; its address goes to the environment.
void startPrivateBus() {
    FILE* out = ::popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
    if (!out) return;
    char line[512] = {};
    if (std::fgets(line, sizeof line, out)) {
        busAddress = line;
        while (!busAddress.empty() && busAddress.back() == '\n')
            busAddress.pop_back();
    }
    if (std::fgets(line, sizeof line, out)) busPid = static_cast<pid_t>(std::atoi(line));
    ::pclose(out);
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
    if (busPid > 0) ::kill(busPid, SIGTERM);
    hl::apptest::cleanUpTestEnvironment();
    return result;
}
