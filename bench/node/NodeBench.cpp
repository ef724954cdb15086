// node_bench: how the terminal node compares with the limits of its machine and
// with tmux, measured side by side in one run. Not a test: run it by hand on a
// release build and read the ratios.
//
//   node_bench [flood|idle|memory|echo|faults|unattended|burst|all] [--seconds N]
//              [--megabytes N] [--node PATH]
//
// flood   bytes per second that a client polling like the application (its
//         output line: waiting polls of raw frames on one connection) receives
//         from `cat` of a large file, against the same file read from a
//         pseudo-terminal in-process, against a tmux control-mode client, and
//         against a client of plain JSON polls (poll; if the reply was full poll
//         again at once, else wait 50 ms), as older clients still poll.
// idle    the node's CPU over N seconds with 50 idle sessions each polled like
//         the application (a waiting poll of --wait ms, 1000 by default, at a
//         time), beside a tmux server holding 50 idle panes.
// memory  resident memory per additional idle session, against tmux per pane.
// echo    time from an input request to its echo in a poll (the application's
//         waiting poll), over 1000 keys.
// faults  health latency and memory under misbehaving clients (FaultRuns.cpp).
// unattended  a shell printing N MiB that nobody polls (FaultRuns.cpp).
// burst   how long bursts of 100 requests hold up the loop (BurstRun.cpp), of
//         the node given with --node (to compare two builds) or this build's.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <util.h>
#else
#include <pty.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Base64.h"
#include "BurstRun.h"
#include "FaultRuns.h"
#include "NodeHarness.h"
#include "Reply.h"

using namespace std::chrono_literals;
using hl::node::testing::NodeHarness;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int idleSessions = 50;
// As the application's poll loop asks (TerminalControllerHooks): the longest
// wait of an idle poll and the most output per reply.
std::chrono::milliseconds pollWait{1000};
constexpr std::size_t pollMaximumBytes = 1024 * 1024;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs a command and returns its standard output.
std::string capture(const std::vector<std::string>& command) {
    int out[2];
    if (::pipe(out) != 0) return {};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0);
        ::dup2(null, 2);
        ::close(out[0]);
        ::close(out[1]);
        ::close(null);
        std::vector<char*> argv;
        for (const auto& word : command)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(out[0], buffer, sizeof buffer)) > 0)
        text.append(buffer, n);
    ::close(out[0]);
    ::waitpid(pid, nullptr, 0);
    return text;
}

// CPU seconds (user and system) that a process has used.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    unsigned long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoul(field);
        if (i == 15) stime = std::stoul(field);
    }
    return double(utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

// Resident memory of a process in KiB.
long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

// A tmux server of its own, on a private socket.
class Tmux {
  public:
    explicit Tmux(const std::string& folder) : socket_(folder + "/tmux.sock") {}
    ~Tmux() { run({"kill-server"}); }

    std::string run(std::vector<std::string> arguments) const {
        std::vector<std::string> command = {"tmux", "-S", socket_, "-f", "/dev/null"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return capture(command);
    }
    void start(const std::string& shellCommand = {}) {
        std::vector<std::string> arguments = {"new-session", "-d",  "-s", "bench",
                                              "-x",          "120", "-y", "36"};
        if (!shellCommand.empty()) arguments.push_back(shellCommand);
        run(arguments);
        pid_ = std::stoi(run({"display-message", "-p", "-t", "bench", "#{pid}"}));
    }
    void addWindow() const { run({"new-window", "-d", "-t", "bench"}); }
    pid_t pid() const { return pid_; }
    const std::string& socket() const { return socket_; }

  private:
    std::string socket_;
    pid_t pid_ = -1;
};

// Output of a poll, decoded.
std::string pollOutput(const hl::UnixSocketClient& client, const std::string& id,
                       bool* exited = nullptr) {
    const auto reply = client.request("poll", {{"session_id", id}});
    if (exited) *exited = reply["exited"].boolValue().value_or(false);
    return hl::base64::decode(reply["output_base64"].stringValue().value_or("")).value_or("");
}

// Waits until every shell has finished starting (it answers a command), then
// lets it fall quiet.
void settle(const NodeHarness& node, const std::vector<std::string>& ids) {
    for (const auto& id : ids)
        node.type(id, "printf 'R%s\\n' EADY\n");
    for (const auto& id : ids)
        node.pollUntilContains(id, "READY");
    std::this_thread::sleep_for(1500ms);
    for (const auto& id : ids)
        node.poll(id);
}

// Writes a text file of the given size: numbered lines of 80 characters.
std::string writeFloodFile(const std::string& folder, std::size_t megabytes) {
    const std::string path = folder + "/flood.txt";
    std::ofstream file(path, std::ios::binary);
    std::string block;
    char line[81];
    for (std::size_t n = 0; block.size() < 1024 * 1024; ++n) {
        std::snprintf(line, sizeof line,
                      "%08zu the quick brown fox jumps over the lazy dog 0123456789 abcdefghij\n",
                      n);
        block += std::string(line).substr(0, 79) + "\n";
    }
    block.resize(1024 * 1024);
    block.back() = '\n';
    for (std::size_t i = 0; i < megabytes; ++i)
        file.write(block.data(), block.size());
    return path;
}

// Bytes per second of `cat path` read from a pseudo-terminal in this process.
double ptyRate(const std::string& path) {
    int master = -1, slave = -1;
    winsize size{};
    size.ws_col = 120;
    size.ws_row = 36;
    if (::openpty(&master, &slave, nullptr, nullptr, &size) != 0) return 0;
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setsid();
        ::ioctl(slave, TIOCSCTTY, 0);
        ::dup2(slave, 1);
        ::close(master);
        ::execlp("cat", "cat", path.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(slave);
    std::size_t total = 0;
    std::vector<char> buffer(64 * 1024);
    ssize_t n;
    while ((n = ::read(master, buffer.data(), buffer.size())) > 0)
        total += n;
    const double seconds = secondsSince(start);
    ::close(master);
    ::waitpid(pid, nullptr, 0);
    return total / seconds;
}

// Bytes per second that the application's poll loop receives from the node,
// through its output line (or, plain, through JSON polls paced as before).
double nodeRate(const std::string& path, std::size_t* polls, bool plain) {
    NodeHarness node;
    const auto client = node.client();
    const auto id = node.createSession();
    settle(node, {id});
    const std::string marker = "flood-done";
    const auto start = Clock::now();
    node.type(id, "cat " + path + "; printf '%s-%s\\n' flood done\n");
    std::size_t total = 0;
    std::string recent;
    *polls = 0;
    const auto line = client.openOutputLine();
    while (true) {
        const std::string output =
            plain ? pollOutput(client, id) : line->poll(id, pollWait, pollMaximumBytes).output;
        ++*polls;
        total += output.size();
        recent = recent.substr(recent.size() > 64 ? recent.size() - 64 : 0) +
                 output.substr(output.size() > 4096 ? output.size() - 4096 : 0);
        if (recent.find(marker) != std::string::npos) break;
        if (plain && output.size() < hl::node::maximumOutputPerReply)
            std::this_thread::sleep_for(50ms);
    }
    const double seconds = secondsSince(start);
    node.closeSession(id);
    return total / seconds;
}

// Bytes per second that a tmux control-mode client receives from a pane fed the file.
double tmuxRate(const std::string& folder, const std::string& path) {
    Tmux tmux(folder);
    tmux.start("sh -c 'read x; cat " + path + "; printf \"%s-%s\\n\" flood done; sleep 1000'");
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) return 0;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        for (int fd : {in[0], in[1], out[0], out[1]})
            ::close(fd);
        ::execlp("tmux", "tmux", "-S", tmux.socket().c_str(), "-C", "attach", "-t", "bench",
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    std::this_thread::sleep_for(500ms);
    const auto start = Clock::now();
    tmux.run({"send-keys", "-t", "bench", "Enter"});
    // %output lines carry the pane's bytes, with control characters and the
    // backslash written as \ooo.
    std::size_t total = 0;
    std::string pending, recent;
    std::vector<char> buffer(256 * 1024);
    bool done = false;
    while (!done) {
        const ssize_t n = ::read(out[0], buffer.data(), buffer.size());
        if (n <= 0) break;
        pending.append(buffer.data(), n);
        std::size_t at = 0, end;
        while ((end = pending.find('\n', at)) != std::string::npos) {
            if (pending.compare(at, 8, "%output ") == 0) {
                const auto text = pending.find(' ', at + 8) + 1;
                std::string decoded;
                for (std::size_t i = text; i < end; ++i) {
                    if (pending[i] == '\\' && i + 3 < end + 1) {
                        decoded.push_back(
                            static_cast<char>(std::stoi(pending.substr(i + 1, 3), nullptr, 8)));
                        i += 3;
                    } else {
                        decoded.push_back(pending[i]);
                    }
                }
                total += decoded.size();
                recent = recent.substr(recent.size() > 64 ? recent.size() - 64 : 0) + decoded;
                if (recent.find("flood-done") != std::string::npos) done = true;
            }
            at = end + 1;
        }
        pending.erase(0, at);
    }
    const double seconds = secondsSince(start);
    ::close(in[1]);
    ::close(out[0]);
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    return total / seconds;
}

void flood(const std::string& folder, std::size_t megabytes) {
    const std::string path = writeFloodFile(folder, megabytes);
    std::printf("flood: cat of a %zu MiB file\n", megabytes);
    const double pty = ptyRate(path);
    std::size_t polls = 0, plainPolls = 0;
    const double node = nodeRate(path, &polls, false);
    const double plain = nodeRate(path, &plainPolls, true);
    const double tmux = tmuxRate(folder, path);
    std::printf("  pseudo-terminal in-process  %8.1f MB/s\n", pty / 1e6);
    std::printf("  node, application poll loop %8.1f MB/s  (%zu waiting polls, frames)\n",
                node / 1e6, polls);
    std::printf("  node, plain JSON polls      %8.1f MB/s  (%zu polls)\n", plain / 1e6, plainPolls);
    std::printf("  tmux control-mode client    %8.1f MB/s\n", tmux / 1e6);
    std::printf(
        "  node / pseudo-terminal = %.2f   node / tmux = %.2f   plain / pseudo-terminal = "
        "%.2f\n",
        node / pty, node / tmux, plain / pty);
    ::unlink(path.c_str());
}

void idle(const std::string& folder, int seconds) {
    NodeHarness node;
    std::vector<std::string> ids;
    for (int i = 0; i < idleSessions; ++i)
        ids.push_back(node.createSession());
    settle(node, ids);
    Tmux tmux(folder);
    tmux.start();
    for (int i = 1; i < idleSessions; ++i)
        tmux.addWindow();
    std::this_thread::sleep_for(1500ms);

    std::printf("idle: %d sessions, each with a waiting poll of %lld ms at a time, for %d s\n",
                idleSessions, static_cast<long long>(pollWait.count()), seconds);
    const double nodeBefore = cpuSeconds(node.pid()), tmuxBefore = cpuSeconds(tmux.pid());
    const auto start = Clock::now();
    const auto client = node.client();
    std::atomic<std::size_t> polls = 0;
    std::vector<std::thread> pollers;
    for (const auto& id : ids) {
        pollers.emplace_back([&, id] {
            const auto line = client.openOutputLine();
            while (Clock::now() - start < std::chrono::seconds(seconds)) {
                const auto result = line->poll(id, pollWait, pollMaximumBytes);
                ++polls;
                if (!result.waited) std::this_thread::sleep_for(pollWait);
            }
        });
    }
    for (auto& poller : pollers)
        poller.join();
    const double elapsed = secondsSince(start);
    const double nodeShare = (cpuSeconds(node.pid()) - nodeBefore) / elapsed;
    const double tmuxShare = (cpuSeconds(tmux.pid()) - tmuxBefore) / elapsed;
    std::printf("  node CPU %.3f%% of one core (%zu polls, %.0f per second)\n", nodeShare * 100,
                polls.load(), polls / elapsed);
    std::printf("  tmux server CPU %.3f%% of one core (50 idle panes, no client)\n",
                tmuxShare * 100);
    for (const auto& id : ids)
        node.closeSession(id);
}

void memory(const std::string& folder) {
    NodeHarness node;
    const auto warm = node.createSession();
    settle(node, {warm});
    const long nodeBefore = residentKiB(node.pid());
    std::vector<std::string> ids;
    for (int i = 0; i < idleSessions; ++i)
        ids.push_back(node.createSession());
    settle(node, ids);
    const long nodeAfter = residentKiB(node.pid());

    Tmux tmux(folder);
    tmux.start();
    std::this_thread::sleep_for(1000ms);
    const long tmuxBefore = residentKiB(tmux.pid());
    for (int i = 0; i < idleSessions; ++i)
        tmux.addWindow();
    std::this_thread::sleep_for(1500ms);
    const long tmuxAfter = residentKiB(tmux.pid());

    const double nodePer = double(nodeAfter - nodeBefore) / idleSessions;
    const double tmuxPer = double(tmuxAfter - tmuxBefore) / idleSessions;
    std::printf("memory: resident memory per additional idle session (%d added)\n", idleSessions);
    std::printf("  node %.1f KiB per session (%ld -> %ld KiB)\n", nodePer, nodeBefore, nodeAfter);
    std::printf("  tmux %.1f KiB per pane    (%ld -> %ld KiB)\n", tmuxPer, tmuxBefore, tmuxAfter);
    std::printf("  node / tmux = %.2f\n", tmuxPer > 0 ? nodePer / tmuxPer : 0.0);
    for (const auto& id : ids)
        node.closeSession(id);
    node.closeSession(warm);
}

void echo() {
    NodeHarness node;
    const auto client = node.client();
    const auto id = node.createSession();
    settle(node, {id});
    const auto line = client.openOutputLine();
    std::vector<double> micros;
    for (int i = 0; i < 1000; ++i) {
        if (i % 60 == 59) {
            node.type(id, "\x15");  // clear the line, then let its repaint pass
            std::this_thread::sleep_for(20ms);
            line->poll(id, 0ms, pollMaximumBytes);
            continue;
        }
        const char key = static_cast<char>('a' + i % 26);
        const auto start = Clock::now();
        node.type(id, std::string(1, key));
        while (line->poll(id, pollWait, pollMaximumBytes).output.find(key) == std::string::npos) {
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    std::printf("echo: input request to echo seen by a poll, %zu keys\n", micros.size());
    std::printf("  median %.0f us   99th percentile %.0f us   worst %.0f us\n",
                micros[micros.size() / 2], micros[micros.size() * 99 / 100], micros.back());
    node.closeSession(id);
}

}  // namespace

int main(int argc, char** argv) {
    std::string which = "all";
    int seconds = 60;
    std::size_t megabytes = 256;
    const char* node = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--seconds" && i + 1 < argc) {
            seconds = std::atoi(argv[++i]);
        } else if (argument == "--megabytes" && i + 1 < argc) {
            megabytes = std::strtoul(argv[++i], nullptr, 10);
        } else if (argument == "--wait" && i + 1 < argc) {
            pollWait = std::chrono::milliseconds(std::atoi(argv[++i]));
        } else if (argument == "--node" && i + 1 < argc) {
            node = argv[++i];
        } else if (argument[0] != '-') {
            which = argument;
        } else {
            std::fprintf(stderr,
                         "usage: node_bench [flood|idle|memory|echo|faults|unattended|burst|all] "
                         "[--seconds N] [--megabytes N] [--wait MS] [--node PATH]\n");
            return 2;
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string folder = hl::node::testing::makeTemporaryFolder();
    // The node's shells and tmux's panes start alike, from the system's profile
    // only (the harness gives each node a home of its own, and tmux gets this one).
    ::setenv("HOME", folder.c_str(), 1);
    if (which == "flood" || which == "all") flood(folder, megabytes);
    if (which == "idle" || which == "all") idle(folder, seconds);
    if (which == "memory" || which == "all") memory(folder);
    if (which == "echo" || which == "all") echo();
    if (which == "faults" || which == "all") hl::node::bench::faultRuns();
    if (which == "unattended" || which == "all")
        hl::node::bench::unattended(
            static_cast<unsigned>(std::min<std::size_t>(megabytes * 4, 1024)));
    if (which == "burst" || which == "all") hl::node::bench::burstRun(node);
    capture({"rm", "-rf", folder});
    return 0;
}
