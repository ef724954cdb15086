// Clock, memory and child processes of app_bench.
#include "BenchProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace hl::bench {

namespace {

// Every numeric entry of /proc.
std::vector<pid_t> allProcesses() {
    std::vector<pid_t> pids;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
        pids.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return pids;
}

// The fields of /proc/<pid>/stat after the command name, or empty.
std::vector<std::string> statFields(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line)) return {};
    const auto close = line.rfind(')');
    if (close == std::string::npos) return {};
    std::istringstream rest(line.substr(close + 1));
    std::vector<std::string> fields;
    for (std::string field; rest >> field;)
        fields.push_back(field);
    return fields;
}

// True when the process's environment holds a variable starting with `prefix`.
bool environmentHas(pid_t pid, const std::string& prefix) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
    std::string variable;
    while (std::getline(file, variable, '\0')) {
        if (variable.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

std::vector<pid_t> processesOf(const fs::path& folder) {
    const std::string marker = "HARBORLATTICE_SOCKET=" + folder.string() + "/";
    std::vector<pid_t> found;
    for (const pid_t pid : allProcesses()) {
        if (pid != ::getpid() && environmentHas(pid, marker)) found.push_back(pid);
    }
    return found;
}

// Parses "key value" lines.
void readValues(const std::string& text, std::map<std::string, double>& values) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string key;
        double value = 0;
        if (words >> key >> value) values[key] = value;
    }
}

}  // namespace

bool isRendererProcess(pid_t pid) {
    // Renderers are forked from the zygote and keep its command line.
    const auto commandLine = [](pid_t process) {
        std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
        return std::string{std::istreambuf_iterator<char>(file), {}};
    };
    const auto fields = statFields(pid);
    if (fields.size() < 2) return false;
    const pid_t parent = static_cast<pid_t>(std::stol(fields[1]));
    return commandLine(pid).find("--type=zygote") != std::string::npos &&
           commandLine(parent).find("--type=zygote") != std::string::npos;
}

std::int64_t monotonicNanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::int64_t processStartNanoseconds() {
    const auto fields = statFields(::getpid());
    // Field 22 of the whole line, "starttime", in clock ticks since boot.
    if (fields.size() < 20) return monotonicNanoseconds();
    const double ticks = std::stod(fields[19]);
    timespec boot{};
    ::clock_gettime(CLOCK_BOOTTIME, &boot);
    const std::int64_t sinceBoot = std::int64_t{boot.tv_sec} * 1'000'000'000 + boot.tv_nsec;
    const auto started =
        static_cast<std::int64_t>(ticks / static_cast<double>(::sysconf(_SC_CLK_TCK)) * 1e9);
    return monotonicNanoseconds() - (sinceBoot - started);
}

std::vector<pid_t> processTree(pid_t root) {
    std::multimap<pid_t, pid_t> children;
    for (const pid_t pid : allProcesses()) {
        const auto fields = statFields(pid);
        if (fields.size() > 1) children.emplace(static_cast<pid_t>(std::stol(fields[1])), pid);
    }
    std::vector<pid_t> tree{root};
    for (std::size_t i = 0; i < tree.size(); ++i) {
        const auto [first, last] = children.equal_range(tree[i]);
        for (auto it = first; it != last; ++it)
            tree.push_back(it->second);
    }
    return tree;
}

long proportionalSetKiB(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Pss:", 0) == 0) return std::stol(line.substr(4));
    }
    return 0;
}

double cpuMilliseconds(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The command name may hold spaces and parentheses; the fields follow its last ')'.
    const auto close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long ticks = 0;
    // Fields 3 to 13 come before utime (14) and stime (15).
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index >= 14) ticks += std::stol(field);
    }
    return 1000.0 * static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

ChildRun runSelf(const std::vector<std::string>& arguments, const fs::path& log,
                 std::chrono::seconds timeout) {
    ChildRun run;
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    int out[2];
    if (error || ::pipe2(out, O_CLOEXEC) != 0) {
        run.failure = "cannot start a child";
        return run;
    }
    const int logFile = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    std::vector<std::string> words{self.string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    words.push_back("--since");
    std::vector<char*> argv;
    words.push_back(std::to_string(monotonicNanoseconds()));
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        ::dup2(out[1], STDOUT_FILENO);
        if (logFile >= 0) ::dup2(logFile, STDERR_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    if (logFile >= 0) ::close(logFile);
    if (pid < 0) {
        ::close(out[0]);
        run.failure = "fork failed";
        return run;
    }
    ::setpgid(pid, pid);

    // Reads until the child's last line ("done"), its end, or the deadline:
    // renderers it leaves behind for a moment may still hold the pipe open.
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const auto left = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   deadline - std::chrono::steady_clock::now())
            .count();
    };
    while (left() > 0 && output.find("done\n") == std::string::npos) {
        pollfd ready{out[0], POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(left())) <= 0) continue;
        char buffer[4096];
        const ssize_t count = ::read(out[0], buffer, sizeof buffer);
        if (count <= 0) break;
        output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(out[0]);
    int status = 0;
    bool exited = false;
    const auto exitDeadline =
        std::max(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(20));
    while (!exited && std::chrono::steady_clock::now() < exitDeadline) {
        exited = ::waitpid(pid, &status, WNOHANG) == pid;
        if (!exited) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const bool timedOut = !exited;
    if (timedOut) {
        ::kill(-pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }

    readValues(output, run.values);
    // A child that reported and then hung on its way out still counts.
    const bool reported = output.find("done\n") != std::string::npos;
    run.succeeded = reported && (timedOut || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
    if (!reported && timedOut) {
        run.failure = "did not end within " + std::to_string(timeout.count()) + " s";
    } else if (!run.succeeded) {
        run.failure = WIFEXITED(status)
                          ? "exited with status " + std::to_string(WEXITSTATUS(status))
                          : "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return run;
}

void stopProcessesOf(const fs::path& folder) {
    for (const pid_t pid : processesOf(folder))
        ::kill(pid, SIGTERM);
    for (int i = 0; i < 50 && !processesOf(folder).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (const pid_t pid : processesOf(folder))
        ::kill(pid, SIGKILL);
}

}  // namespace hl::bench
