// NodeSupervisor: health check, then a detached launch of the node.
#include "NodeSupervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include "NodeClient.h"
#include "RuntimePaths.h"

extern char** environ;

namespace fs = std::filesystem;

namespace hl {

namespace {

bool isExecutableFile(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

// The directory holding this process's executable, if it can be found.
std::optional<fs::path> executableDirectory() {
#ifdef __APPLE__
    char buffer[4096];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) != 0) return std::nullopt;
    return fs::path(buffer).parent_path();
#else
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return std::nullopt;
    return self.parent_path();
#endif
}

// The application's environment with HARBORLATTICE_SOCKET set to the socket path.
std::vector<std::string> childEnvironment() {
    const std::string prefix = "HARBORLATTICE_SOCKET=";
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0)
            environment.emplace_back(*entry);
    }
    environment.push_back(prefix + RuntimePaths::socketPath());
    return environment;
}

}  // namespace

bool launchDetached(const fs::path& executable, const fs::path& workingDirectory,
                    const std::vector<std::string>& environment) {
    // Everything the children need is prepared here: after fork only
    // async-signal-safe calls are made.
    std::vector<char*> envp;
    for (const auto& entry : environment)
        envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);
    const std::string program = executable.string();
    const std::string directory = workingDirectory.string();
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};

    const pid_t intermediate = ::fork();
    if (intermediate < 0) return false;
    if (intermediate == 0) {
        // The intermediate child forks the node and exits, so the node is
        // adopted by init and never becomes our zombie; the node leads a
        // session of its own, away from our terminal and process group.
        const pid_t node = ::fork();
        if (node != 0) ::_exit(node < 0 ? 1 : 0);
        ::setsid();
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        const int null = ::open("/dev/null", O_RDWR);
        if (null < 0) ::_exit(127);
        ::dup2(null, 0);
        ::dup2(null, 1);
        ::dup2(null, 2);
        if (null > 2) ::close(null);
        if (::chdir(directory.c_str()) != 0) ::_exit(127);
        ::execve(program.c_str(), argv, envp.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(intermediate, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

NodeSupervisor& NodeSupervisor::shared() {
    static NodeSupervisor* instance =
        new NodeSupervisor();  // never destroyed: checks may outlive main
    return *instance;
}

bool NodeSupervisor::launchInFlight() const {
    std::lock_guard guard(lock_);
    return launchInFlight_;
}

void NodeSupervisor::ensureRunning() {
    {
        std::lock_guard guard(lock_);
        if (launchInFlight_) return;
        launchInFlight_ = true;
    }
    try {
        std::thread([this] { check(); }).detach();
    } catch (const std::system_error&) {
        finish();
    }
}

void NodeSupervisor::finish() {
    std::lock_guard guard(lock_);
    launchInFlight_ = false;
}

void NodeSupervisor::check() {
    try {
        UnixSocketClient().request("health");
        finish();
        return;
    } catch (...) {
        // No node answered: go on and start one.
    }
    if (auto executable = nodeExecutable()) {
        std::error_code error;
        const fs::path support = RuntimePaths::supportDirectory();
        fs::create_directories(support, error);
        if (!error)
            fs::permissions(support, fs::perms::owner_all, fs::perm_options::replace, error);
        if (!error) launchDetached(*executable, RuntimePaths::homeDirectory(), childEnvironment());
    }
    finish();
}

std::optional<fs::path> NodeSupervisor::nodeExecutable() const {
    std::vector<fs::path> candidates;
    if (const char* explicitPath = std::getenv("HARBORLATTICE_NODE_EXECUTABLE")) {
        candidates.emplace_back(explicitPath);
    }
    if (auto directory = executableDirectory())
        candidates.push_back(*directory / "harborlattice-node");
    if (const char* root = std::getenv("HARBORLATTICE_ROOT")) {
        candidates.push_back(fs::path(root) / "target" / "debug" / "harborlattice-node");
    }
    for (const auto& candidate : candidates) {
        if (isExecutableFile(candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace hl
