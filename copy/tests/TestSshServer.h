// A real OpenSSH server for the copy's tests and benchmark: sshd as the
// current user on a loopback port, with a throw-away host key and user keys,
// and a home whose ssh configuration names it. ssh reads its configuration
// from the account's home in the password database, not from $HOME, so while
// the server lives, child processes see the test home there (nss_wrapper).
// sshd runs in a mount namespace of its own, so that the origin's folder and
// the receiving one can have the same path, as on two machines.
#pragma once

#include <QString>

#include <sys/types.h>
#include <filesystem>
#include <memory>
#include <string>

#include "ProjectCopyPlan.h"
#include "TestSupport.h"

namespace hl::test {

class TestSshServer {
  public:
    // Host names of the test home's ssh configuration.
    static constexpr const char* kOriginHost = "origin-test";      // reaches the server
    static constexpr const char* kDeniedHost = "origin-denied";    // with a key it refuses
    static constexpr const char* kChangedHost = "origin-changed";  // under a wrong saved key
    static constexpr const char* kClosedHost = "origin-closed";    // at a port nobody listens on

    // Starts the server; check isRunning(), and failure() for why not.
    TestSshServer();
    // Stops the server and restores the environment.
    ~TestSshServer();
    TestSshServer(const TestSshServer&) = delete;
    TestSshServer& operator=(const TestSshServer&) = delete;

    bool isRunning() const { return pid_ > 0; }
    const std::string& failure() const { return failure_; }
    const std::filesystem::path& folder() const { return folder_; }
    // The same folder as the origin's shell and as this machine see it: sshd
    // runs with the origin's projects mounted over this machine's, so a root
    // under localFolder() is missing here and filled over there.
    std::filesystem::path remoteFolder() const { return folder_ / "remote"; }
    std::filesystem::path localFolder() const { return folder_ / "projects"; }
    std::string userName() const;
    // An origin of the given host with this user and root.
    ProjectCopyOrigin origin(const QString& root, const char* host = kOriginHost) const;

  private:
    bool prepare();
    bool startServer(int port);
    void stopServer();

    std::filesystem::path folder_;
    std::string failure_;
    pid_t pid_ = -1;
    int port_ = 0;
    std::vector<std::unique_ptr<ScopedEnv>> environment_;
};

}  // namespace hl::test
