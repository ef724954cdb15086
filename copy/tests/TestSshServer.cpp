// TestSshServer: keys, configuration, a free loopback port, sshd started and
// waited for until it accepts connections, and stopped with its process.
#include "TestSshServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace fs = std::filesystem;

namespace hl::test {

namespace {

// Starts a command with no input and its output to /dev/null, its errors to
// `log` when one is named; -1 when it cannot start.
pid_t spawn(std::vector<std::string> command, char* const* envp, const std::string& log = {}) {
    std::vector<char*> argv;
    for (auto& text : command)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (!log.empty())
        posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0600);
    pid_t pid = -1;
    const int launched = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp);
    posix_spawn_file_actions_destroy(&actions);
    return launched == 0 ? pid : -1;
}

// Runs a command to its end; true on status 0.
bool runQuietly(const std::vector<std::string>& command) {
    const pid_t pid = spawn(command, environ);
    if (pid < 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A loopback port that was free a moment ago.
int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

}  // namespace

TestSshServer::TestSshServer() {
    char pattern[] = "/tmp/hl-sshd-XXXXXX";
    if (!::mkdtemp(pattern)) {
        failure_ = "no temporary folder";
        return;
    }
    folder_ = pattern;
    if (!prepare()) return;
    for (int attempt = 0; attempt < 5 && !isRunning(); ++attempt) {
        const int port = freePort();
        if (port > 0 && startServer(port)) port_ = port;
    }
    if (!isRunning()) return;

    const std::string home = (folder_ / "home").string();
    std::ofstream config(folder_ / "home/.ssh/config");
    const std::string ssh = (folder_ / "home/.ssh").string();
    auto host = [&](const char* name, int port, const std::string& key, const std::string& extra) {
        config << "Host " << name << "\n  HostName 127.0.0.1\n  Port " << port
               << "\n  IdentityFile " << ssh << "/" << key << "\n  IdentitiesOnly yes\n"
               << "  UserKnownHostsFile " << ssh << "/known_hosts\n"
               << "  LogLevel ERROR\n  GSSAPIAuthentication no\n"
               << extra;
    };
    host(kOriginHost, port_, "id_test", "");
    host(kDeniedHost, port_, "id_denied", "");
    host(kChangedHost, port_, "id_test", "  HostKeyAlias origin-changed-key\n");
    host(kClosedHost, freePort(), "id_test", "");
    config.close();
    // A saved key for the changed host that is not the server's.
    writeText(folder_ / "home/.ssh/known_hosts",
              "origin-changed-key " + readFile(folder_ / "other_host_key.pub"));

    for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
             {"LD_PRELOAD", "libnss_wrapper.so"},
             {"NSS_WRAPPER_PASSWD", (folder_ / "passwd").string()},
             {"NSS_WRAPPER_GROUP", (folder_ / "group").string()},
             {"HOME", home}})
        environment_.push_back(std::make_unique<ScopedEnv>(name, value));
}

// The environment comes back as the members go, after the server has stopped.
TestSshServer::~TestSshServer() {
    stopServer();
    if (!folder_.empty()) {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
}

std::string TestSshServer::userName() const {
    const passwd* entry = ::getpwuid(::getuid());
    return entry ? entry->pw_name : "root";
}

ProjectCopyOrigin TestSshServer::origin(const QString& root, const char* host) const {
    return ProjectCopyOrigin{"Test Origin", host, QString::fromStdString(userName()), root};
}

bool TestSshServer::prepare() {
    fs::create_directories(folder_ / "home/.ssh");
    fs::create_directories(remoteFolder());
    fs::create_directories(localFolder());
    ::chmod((folder_ / "home").c_str(), 0700);
    ::chmod((folder_ / "home/.ssh").c_str(), 0700);
    // The privilege separation folder that sshd insists on.
    std::error_code ignored;
    fs::create_directories("/run/sshd", ignored);
    const std::string keygen = "/usr/bin/ssh-keygen";
    for (const auto& key : {folder_ / "host_key", folder_ / "other_host_key",
                            folder_ / "home/.ssh/id_test", folder_ / "home/.ssh/id_denied"}) {
        if (!runQuietly({keygen, "-q", "-t", "ed25519", "-N", "", "-f", key.string()})) {
            failure_ = "ssh-keygen failed for " + key.string();
            return false;
        }
    }
    fs::copy_file(folder_ / "home/.ssh/id_test.pub", folder_ / "authorized_keys");
    // The account database with this user's home and shell replaced: ssh finds
    // the test home's configuration, and the remote side runs a plain /bin/sh
    // in it, away from the user's start-up files.
    std::istringstream accounts(readFile("/etc/passwd"));
    std::string passwd, line;
    const std::string prefix = userName() + ":";
    while (std::getline(accounts, line))
        if (line.rfind(prefix, 0) != 0) passwd += line + "\n";
    passwd += prefix + "x:" + std::to_string(::getuid()) + ":" + std::to_string(::getgid()) +
              ":test:" + (folder_ / "home").string() + ":/bin/sh\n";
    writeText(folder_ / "passwd", passwd);
    writeText(folder_ / "group", readFile("/etc/group"));
    return true;
}

bool TestSshServer::startServer(int port) {
    const fs::path config = folder_ / "sshd_config";
    writeText(config, "ListenAddress 127.0.0.1:" + std::to_string(port) + "\nHostKey " +
                          (folder_ / "host_key").string() + "\nPidFile " +
                          (folder_ / "sshd.pid").string() + "\nAuthorizedKeysFile " +
                          (folder_ / "authorized_keys").string() +
                          "\nUsePAM no\nStrictModes no\nPermitRootLogin prohibit-password"
                          "\nPubkeyAuthentication yes\nPasswordAuthentication no"
                          "\nKbdInteractiveAuthentication no\nMaxStartups 64:30:128"
                          "\nLoginGraceTime 120\nUseDNS no\n");
    // In a mount namespace of its own, with the origin's projects over this
    // machine's; it ends with the test process if that dies first.
    std::vector<std::string> command = {
        "/usr/bin/unshare",
        "--mount",
        "--propagation",
        "private",
        "/bin/sh",
        "-c",
        "mount --bind \"$1\" \"$2\" && exec /usr/bin/setpriv --pdeathsig TERM "
        "/usr/sbin/sshd -D -e -f \"$3\"",
        "sh",
        remoteFolder().string(),
        localFolder().string(),
        config.string()};
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (text.rfind("LD_PRELOAD=", 0) != 0 && text.rfind("NSS_WRAPPER", 0) != 0)
            environment.push_back(text);
    }
    environment.push_back("LD_PRELOAD=libnss_wrapper.so");
    environment.push_back("NSS_WRAPPER_PASSWD=" + (folder_ / "passwd").string());
    environment.push_back("NSS_WRAPPER_GROUP=" + (folder_ / "group").string());
    std::vector<char*> envp;
    for (auto& text : environment)
        envp.push_back(text.data());
    envp.push_back(nullptr);
    const std::string log = (folder_ / "sshd.log").string();
    pid_ = spawn(command, envp.data(), log);
    if (pid_ < 0) {
        failure_ = "cannot start sshd through unshare";
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            failure_ = "sshd exited: " + readFile(log);
            return false;
        }
        if (accepts(port)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    failure_ = "sshd did not listen within 30 s: " + readFile(log);
    stopServer();
    return false;
}

void TestSshServer::stopServer() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pid_ = -1;
}

}  // namespace hl::test
