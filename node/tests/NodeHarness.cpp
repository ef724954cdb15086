// NodeHarness: starting, driving and stopping a real node.
#include "NodeHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Base64.h"
#include "UniqueFd.h"

extern char** environ;

namespace hl::node::testing {

std::string makeTemporaryFolder() {
    char pattern[] = "/tmp/hl-node-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

pid_t startNode(const std::string& socketPath, const char* executable) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (text.rfind("HARBORLATTICE_SOCKET=", 0) != 0 && text.rfind("HOME=", 0) != 0) {
            environment.push_back(text);
        }
    }
    environment.push_back("HARBORLATTICE_SOCKET=" + socketPath);
    // The shells start from the system's profile only, in a home of their own
    // beside the socket: the user's start-up files neither slow them down nor
    // receive their history.
    environment.push_back("HOME=" + socketPath.substr(0, socketPath.rfind('/')));
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(executable), nullptr};

    const pid_t pid = ::fork();
    if (pid == 0) {
        const int null = ::open("/dev/null", O_RDWR);
        for (int fd = 0; fd < 3; ++fd)
            ::dup2(null, fd);
        ::execve(executable, argv, envp.data());
        ::_exit(127);
    }
    if (pid < 0) throw std::runtime_error("fork failed");
    return pid;
}

int waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        int status = 0;
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (done < 0 || std::chrono::steady_clock::now() > deadline) return -1;
        std::this_thread::sleep_for(5ms);
    }
}

std::string rawExchange(const std::string& socketPath, const std::string& bytes) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("connect failed");
    }
    // The node may answer before it has read everything (an oversized request),
    // so the request is written beside the reading.
    std::thread writer([&] {
        std::size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n =
                ::send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) break;
            sent += static_cast<std::size_t>(n);
        }
        ::shutdown(fd.get(), SHUT_WR);
    });
    std::string reply;
    char buffer[65536];
    ssize_t n;
    while ((n = ::read(fd.get(), buffer, sizeof buffer)) > 0)
        reply.append(buffer, n);
    writer.join();
    return reply;
}

bool processIsGone(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return ::kill(pid, 0) != 0;
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() &&
           (line[close + 2] == 'Z' || line[close + 2] == 'X');
}

bool nodeAnswers(const std::string& socketPath, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        try {
            UnixSocketClient(socketPath).request("health");
            return true;
        } catch (const std::exception&) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(5ms);
        }
    }
}

void stopNode(pid_t pid) {
    ::kill(pid, SIGTERM);
    if (waitForExit(pid, 5s) < 0) {
        ::kill(pid, SIGKILL);
        waitForExit(pid, 5s);
    }
}

pid_t numberAfter(const std::string& output, const std::string& marker) {
    std::smatch match;
    if (!std::regex_search(output, match, std::regex(marker + "([0-9]+)"))) return -1;
    return static_cast<pid_t>(std::stol(match[1]));
}

bool allGone(const std::vector<pid_t>& pids, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!std::all_of(pids.begin(), pids.end(), processIsGone)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

NodeHarness::NodeHarness(const char* executable)
    : folder_(makeTemporaryFolder()), socketPath_(folder_ + "/node.sock") {
    pid_ = startNode(socketPath_, executable);
    if (!nodeAnswers(socketPath_)) throw std::runtime_error("node did not start");
}

NodeHarness::~NodeHarness() {
    if (pid_ > 0) stopNode(pid_);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string NodeHarness::createSession(const std::string& cwd) const {
    const auto reply = client().request(
        "create_session", {{"cwd", cwd.empty() ? folder_ : cwd}, {"cols", 120}, {"rows", 36}});
    auto id = reply["session_id"].stringValue();
    if (!id) throw std::runtime_error("create_session returned no id");
    return *id;
}

void NodeHarness::type(const std::string& sessionId, const std::string& text) const {
    client().request("input", {{"session_id", sessionId}, {"input_base64", base64::encode(text)}});
}

PollResult NodeHarness::poll(const std::string& sessionId) const {
    const auto reply = client().request("poll", {{"session_id", sessionId}});
    PollResult result;
    if (auto encoded = reply["output_base64"].stringValue()) {
        auto decoded = base64::decode(*encoded);
        if (!decoded) throw std::runtime_error("poll returned invalid base64");
        result.output = std::move(*decoded);
    }
    result.exited = reply["exited"].boolValue().value_or(false);
    return result;
}

bool NodeHarness::closeSession(const std::string& sessionId) const {
    const auto reply = client().request("close_session", {{"session_id", sessionId}});
    return reply["closed"].boolValue().value_or(false);
}

PollResult NodeHarness::pollUntil(const std::string& sessionId,
                                  const std::function<bool(const PollResult&)>& done,
                                  std::chrono::milliseconds timeout) const {
    PollResult all;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done(all) && std::chrono::steady_clock::now() < deadline) {
        PollResult next = poll(sessionId);
        all.output += next.output;
        all.exited = all.exited || next.exited;
        if (next.output.empty()) std::this_thread::sleep_for(5ms);
    }
    return all;
}

PollResult NodeHarness::pollUntilContains(const std::string& sessionId,
                                          const std::string& text) const {
    return pollUntil(sessionId,
                     [&](const PollResult& r) { return r.output.find(text) != std::string::npos; });
}

PollResult NodeHarness::pollUntilNumberAfter(const std::string& sessionId,
                                             const std::string& marker) const {
    return pollUntil(sessionId,
                     [&](const PollResult& r) { return numberAfter(r.output, marker) >= 0; });
}

}  // namespace hl::node::testing
