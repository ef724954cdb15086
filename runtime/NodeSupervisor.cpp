// NodeSupervisor: health check, then a detached launch of the node through
// posix_spawn.
#include "NodeSupervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include "NodeClient.h"
#include "RuntimePaths.h"
#include "UniqueFd.h"

extern char** environ;

namespace fs = std::filesystem;

namespace hl {

namespace {

// Most of a node's report that is kept.
constexpr std::size_t maximumReportBytes = 4096;

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

// The application's environment with HARBORLATTICE_SOCKET set to the socket
// path, without HARBORLATTICE_SYNC_URL: the sync place (which may carry a
// password) is the application's alone, never the node's or its shells'.
std::vector<std::string> childEnvironment() {
    const std::string prefix = "HARBORLATTICE_SOCKET=";
    const std::string syncPrefix = "HARBORLATTICE_SYNC_URL=";
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0 &&
            std::strncmp(*entry, syncPrefix.c_str(), syncPrefix.size()) != 0)
            environment.emplace_back(*entry);
    }
    environment.push_back(prefix + RuntimePaths::socketPath());
    return environment;
}

}  // namespace

bool launchDetached(const fs::path& executable, const fs::path& workingDirectory,
                    const std::vector<std::string>& environment,
                    std::function<void(std::string)> onReport) {
    std::vector<char*> envp;
    for (const auto& entry : environment)
        envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);
    const std::string program = executable.string();
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};

    // posix_spawn is safe in a process with threads (no code of ours runs in
    // the child); the child leads a session of its own, with stdio on the null
    // device, an empty signal mask, default dispositions and no other descriptor.
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (::posix_spawn_file_actions_init(&actions) != 0) return false;
    if (::posix_spawnattr_init(&attributes) != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        return false;
    }
    // The report pipe: the child's standard error, until it closes it.
    int report[2] = {-1, -1};
    if (onReport && ::pipe(report) != 0) report[0] = report[1] = -1;
    UniqueFd reportRead(report[0]), reportWrite(report[1]);
    for (int fd : report) {
        if (fd >= 0) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    bool ready = true;
    for (int fd = 0; fd < 3; ++fd) {
        if (fd == STDERR_FILENO && reportWrite) {
            ready =
                ready && ::posix_spawn_file_actions_adddup2(&actions, reportWrite.get(), fd) == 0;
        } else {
            ready = ready &&
                    ::posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0) == 0;
        }
    }
    ready = ready && ::posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0;
    ready =
        ready && ::posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str()) == 0;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    ready = ready && ::posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
            ::posix_spawnattr_setsigdefault(&attributes, &all) == 0 &&
            ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                                        POSIX_SPAWN_SETSIGDEF) == 0;
    pid_t pid = -1;
    const bool started = ready && ::posix_spawn(&pid, program.c_str(), &actions, &attributes, argv,
                                                envp.data()) == 0;
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (!started) return false;
    reportWrite.reset();
    // The node outlives the application; while both run, a thread of its own
    // reads its report and waits for it, so that it never lingers as a zombie.
    try {
        std::thread([pid, report = std::move(reportRead), onReport = std::move(onReport)] {
            if (report) {
                std::string text;
                char buffer[1024];
                ssize_t n;
                while ((n = ::read(report.get(), buffer, sizeof buffer)) > 0 ||
                       (n < 0 && errno == EINTR)) {
                    if (n > 0 && text.size() < maximumReportBytes) text.append(buffer, n);
                }
                while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
                    text.pop_back();
                onReport(std::move(text));
            }
            int status = 0;
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error&) {
    }
    return true;
}

NodeSupervisor& NodeSupervisor::shared() {
    static NodeSupervisor* instance =
        new NodeSupervisor();  // never destroyed: checks may outlive main
    return *instance;
}

std::optional<std::string> NodeSupervisor::launchFailure() const {
    std::lock_guard guard(lock_);
    return launchFailure_;
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
        if (!error) {
            launchDetached(*executable, RuntimePaths::homeDirectory(), childEnvironment(),
                           [this](std::string report) {
                               std::lock_guard guard(lock_);
                               if (report.empty())
                                   launchFailure_.reset();
                               else
                                   launchFailure_ = std::move(report);
                           });
        }
    }
    finish();
}

std::optional<fs::path> NodeSupervisor::nodeExecutable() const {
    // Relative paths are taken from the application's directory here, and made
    // absolute before the node starts in the home directory.
    auto absolute = [](const fs::path& path) {
        std::error_code error;
        fs::path result = fs::absolute(path, error);
        return error ? path : result.lexically_normal();
    };
    std::vector<fs::path> candidates;
    if (const char* explicitPath = std::getenv("HARBORLATTICE_NODE_EXECUTABLE")) {
        candidates.push_back(absolute(explicitPath));
    }
    if (auto directory = executableDirectory())
        candidates.push_back(*directory / "harborlattice-node");
    if (const char* root = std::getenv("HARBORLATTICE_ROOT")) {
        candidates.push_back(absolute(fs::path(root) / "target" / "debug" / "harborlattice-node"));
    }
    for (const auto& candidate : candidates) {
        if (candidate.is_absolute() && isExecutableFile(candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace hl
